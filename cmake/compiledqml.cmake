# assistant_compile_qml(SOURCES COLLECTION NAMES...)
#
# Sets SOURCES to C++ files with the compiled form of each NAME.qml. The QML files are in the folder
# of COLLECTION, a .qrc file that places them at the resource root. The C++ files only hold the
# bytes; src/ui/compiledscreens.cpp gives them to the QML engine.
function(assistant_compile_qml sources collection)
    get_target_property(rcc ${qt}::rcc IMPORTED_LOCATION)
    get_filename_component(tools ${rcc} DIRECTORY)
    find_program(UPDATE_ASSISTANT_QMLCACHEGEN qmlcachegen HINTS ${tools})
    if(NOT UPDATE_ASSISTANT_QMLCACHEGEN)
        message(FATAL_ERROR "There is no qmlcachegen (Debian: qtdeclarative5-dev-tools, qt6-declarative-dev-tools)")
    endif()

    # Qt 6 would also make C++ code, which calls private functions of the Qt that made it: a program
    # with them would not start with another Qt 6.
    if(UPDATE_ASSISTANT_QT EQUAL 6)
        set(only_bytecode --only-bytecode)
    endif()

    get_filename_component(folder ${collection} DIRECTORY)
    foreach(name IN LISTS ARGN)
        set(output ${CMAKE_CURRENT_BINARY_DIR}/${name}_qml.cpp)
        add_custom_command(OUTPUT ${output}
            COMMAND ${UPDATE_ASSISTANT_QMLCACHEGEN} ${only_bytecode} --resource=${collection}
                -o ${output} ${folder}/${name}.qml
            DEPENDS ${collection} ${folder}/${name}.qml
            VERBATIM)
        list(APPEND files ${output})
    endforeach()
    set(${sources} ${files} PARENT_SCOPE)
endfunction()
