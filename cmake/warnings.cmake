# Compile options of every target of this project. They do not apply to a project
# that links assistant_core.
function(assistant_compile_options target)
    set_target_properties(${target} PROPERTIES
        CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
        -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align
        -Wformat=2 -Wunused)
    if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
        target_compile_options(${target} PRIVATE
            -Wcomma -Wconditional-uninitialized -Wdeprecated -Wextra-semi -Wextra-semi-stmt
            -Wheader-hygiene -Wloop-analysis -Wmissing-variable-declarations -Wnewline-eof
            -Wshadow-all -Wsuggest-override -Wthread-safety -Wundef -Wunreachable-code-aggressive
            -Wzero-as-null-pointer-constant
            # QSKIP() calls a variadic macro with nothing after its last named argument.
            -Wno-gnu-zero-variadic-macro-arguments)
    endif()
    # The programs beside src/ count the bytes of their small data in int, but sizes have 64 bits with
    # Qt 6. Qt 5 checks the conversions there.
    if(UPDATE_ASSISTANT_QT EQUAL 6 AND NOT target MATCHES "^(assistant_core|update-assistant)$")
        target_compile_options(${target} PRIVATE -Wno-conversion -Wno-narrowing)
    endif()
    if(UPDATE_ASSISTANT_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    target_compile_definitions(${target} PRIVATE
        QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_URL_CAST_FROM_STRING
        QT_NO_FOREACH _FILE_OFFSET_BITS=64
        QT_NO_VERSION_TAGGING) # else a program for x86 requires the Qt version of its build
    if(UPDATE_ASSISTANT_SANITIZE)
        set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all
            -fno-omit-frame-pointer)
        target_compile_options(${target} PRIVATE ${sanitizers})
        target_link_options(${target} PRIVATE ${sanitizers})
    endif()
    if(UPDATE_ASSISTANT_COVERAGE)
        # The counters are in a mapped file, since a signal ends the program and many tests. Every
        # target is counted, so that the counters of each program match its file.
        target_compile_options(${target} PRIVATE -fprofile-instr-generate -fcoverage-mapping
            "SHELL:-mllvm -runtime-counter-relocation")
        target_link_options(${target} PUBLIC -fprofile-instr-generate)
    endif()
    if(UPDATE_ASSISTANT_FUZZ)
        target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
    endif()
endfunction()
