# Installs the build below PREFIX and compares what arrives with what a packager expects.
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
    RESULT_VARIABLE status OUTPUT_QUIET)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "install failed: ${status}")
endif()
file(GLOB_RECURSE installed RELATIVE ${PREFIX} ${PREFIX}/*)
if(NOT installed STREQUAL "bin/update-assistant")
    message(FATAL_ERROR "installed: ${installed}")
endif()
