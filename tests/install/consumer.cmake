# Run with cmake -P; see tests.cmake.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

foreach(f include/zq5/nodara.h include/zq5/arrays.h lib/cmake/nodara/nodaraConfig.cmake
          lib/cmake/nodara/nodaraConfigVersion.cmake lib/pkgconfig/nodara.pc)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
file(GLOB sonames ${prefix}/lib/libnodara.so.5*)
if(NOT sonames)
  message(FATAL_ERROR "no versioned libnodara.so.5 in ${prefix}/lib")
endif()

# find_package consumer.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples -B ${WORK_DIR}/example
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_CXX_FLAGS=-Werror)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/example)
run(${WORK_DIR}/example/nodara_example)
if(NOT last_output MATCHES "nodara 5\\.0\\.0\\.0")
  message(FATAL_ERROR "unexpected output of the example:\n${last_output}")
endif()

# pkg-config consumer.
find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs nodara OUTPUT_VARIABLE flags RESULT_VARIABLE rc
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know nodara")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  file(WRITE ${WORK_DIR}/pc.cpp
       "#include <zq5/nodara.h>\n#include <cstring>\nint main() { return std::strcmp(zq5::nodara::version(), \"5.0.0.0\") != 0; }\n")
  run(${CXX} -std=c++17 -Wall -Wextra -Wpedantic -Werror ${WORK_DIR}/pc.cpp -o ${WORK_DIR}/pc ${flags}
      -Wl,-rpath,${prefix}/lib)
  run(${WORK_DIR}/pc)
endif()
