# Adds every immediate subfolder of DIR that has a CMakeLists.txt, in name order. Lets each
# area (tests/<area>, bench/<area>, host/tools/<tool>) own its own build file.
function(tovarin_add_subfolders dir)
    file(GLOB children RELATIVE ${dir} CONFIGURE_DEPENDS ${dir}/*)
    list(SORT children)
    foreach(child IN LISTS children)
        if(IS_DIRECTORY ${dir}/${child} AND EXISTS ${dir}/${child}/CMakeLists.txt)
            add_subdirectory(${dir}/${child})
        endif()
    endforeach()
endfunction()
