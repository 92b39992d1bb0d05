# Compiler switches shared by every target of the project.

if(KESTOR_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=address,undefined)
endif()

if(KESTOR_FUZZ)
    # Coverage feedback for libFuzzer from the whole library, not only the fuzz targets.
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()

function(kestor_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wno-missing-field-initializers)
endfunction()
