# Which Qt: UPDATE_ASSISTANT_QT is 5 or 6. Its default is the one that is found, Qt 5 if both are.
set(modules Core Gui Qml Quick Network)
if(NOT UPDATE_ASSISTANT_QT)
    find_package(Qt5 5.12 QUIET COMPONENTS ${modules})
    if(Qt5_FOUND)
        set(found 5)
    else()
        set(found 6)
    endif()
endif()
set(UPDATE_ASSISTANT_QT "${found}" CACHE STRING "The major version of Qt: 5 or 6")
set_property(CACHE UPDATE_ASSISTANT_QT PROPERTY STRINGS 5 6)
if(UPDATE_ASSISTANT_QT STREQUAL 5)
    find_package(Qt5 5.12 REQUIRED COMPONENTS ${modules})
elseif(UPDATE_ASSISTANT_QT STREQUAL 6)
    find_package(Qt6 6.4 REQUIRED COMPONENTS ${modules})
else()
    message(FATAL_ERROR "UPDATE_ASSISTANT_QT is ${UPDATE_ASSISTANT_QT}, but not 5 or 6")
endif()
set(qt Qt${UPDATE_ASSISTANT_QT}) # with which the names of its targets begin

# assistant_generate_moc(SOURCE MOC ...) and
# assistant_add_resources(SOURCES COLLECTION [OPTIONS ...]): Qt 5.12 has no command without a version.
macro(assistant_generate_moc)
    if(UPDATE_ASSISTANT_QT EQUAL 5)
        qt5_generate_moc(${ARGN})
    else()
        qt6_generate_moc(${ARGN})
    endif()
endmacro()
macro(assistant_add_resources)
    if(UPDATE_ASSISTANT_QT EQUAL 5)
        qt5_add_resources(${ARGN})
    else()
        qt6_add_resources(${ARGN})
    endif()
endmacro()

# Most of the build time of a small file is that of the headers of Qt. clang, and Qt 6 by its macros, refuse a header that
# was compiled with other macros; their builds tell which includes are missing.
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND UPDATE_ASSISTANT_QT EQUAL 5)
    set(precompile_headers ON)
endif()
