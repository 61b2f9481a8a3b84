# Installs the library into a scratch prefix and builds two consumers against it:
# the example program through find_package, and a one-file program through
# pkg-config.
add_test(NAME install.consumer
  COMMAND ${CMAKE_COMMAND}
    -DBUILD_DIR=${PROJECT_BINARY_DIR}
    -DSOURCE_DIR=${PROJECT_SOURCE_DIR}
    -DWORK_DIR=${PROJECT_BINARY_DIR}/install-test
    -DCXX=${CMAKE_CXX_COMPILER}
    -P ${CMAKE_CURRENT_LIST_DIR}/consumer.cmake)
set_tests_properties(install.consumer PROPERTIES LABELS install TIMEOUT 300)
