# Interoperability: VTK files of every accepted element kind, read back with VTK's
# own reader (python3-vtk9, importable in the system interpreter only).
add_executable(nodara_io_interop_writer ${CMAKE_CURRENT_LIST_DIR}/interop/write_meshes.cpp
                                        ${NODARA_TEST_COMMON})
target_include_directories(nodara_io_interop_writer PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
target_link_libraries(nodara_io_interop_writer PRIVATE zq5::nodara nodara_options)

add_test(NAME io_vtk_interop
         COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/vtk_interop.py
                 $<TARGET_FILE:nodara_io_interop_writer> ${CMAKE_CURRENT_BINARY_DIR}/io_vtk_interop)
set_tests_properties(io_vtk_interop PROPERTIES LABELS "interop;io" TIMEOUT 120)
