# ky_add_resources(<target> <file>... [PREFIX <prefix>] [BASE <folder>])
#
# Puts files into a program or library, byte by byte, and registers them before its main function,
# or its other static constructors that come later, begin. At run time each is found by its name
# (ky/kyResource.h) until the library is terminated or the target is unloaded. Its bytes are aligned
# to 16, and a zero byte that does not belong to them follows. Its digest is its SHA-256.
#
# The name of a resource is <prefix> and the path of its file from <folder>, which is the current
# source folder when it is not given. A relative file is meant from the current source folder too,
# and a file outside <folder> is an error. A file may come out of the build itself, if its path has
# nothing but letters, digits, blanks and -+.,_ in it; other names may hold what they like but for
# line breaks. The target is built anew when a file changes, and is to be linked with
# kySystem::kySystem. The function may be called several times for a target, in the
# folder that has made it.
#
# A static library carries its resources into every program that links it by CMake.

# Whatever version the client asks for.
cmake_policy(VERSION 3.25)

function(ky_add_resources target)
    if(NOT TARGET ${target})
        message(FATAL_ERROR "ky_add_resources: there is no target ${target}")
    endif()
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "INTERFACE_LIBRARY" OR type STREQUAL "UTILITY")
        message(FATAL_ERROR "ky_add_resources: ${target} has no code to put resources into")
    endif()
    get_target_property(folder ${target} SOURCE_DIR)
    if(NOT folder STREQUAL CMAKE_CURRENT_SOURCE_DIR)
        message(FATAL_ERROR "ky_add_resources: ${target} belongs to ${folder}, call it there")
    endif()
    get_property(number TARGET ${target} PROPERTY KY_RESOURCE_TABLES)
    if(NOT number)
        set(number 0)
    endif()
    math(EXPR number "${number} + 1")
    set_property(TARGET ${target} PROPERTY KY_RESOURCE_TABLES ${number})

    # One argument after the other, since a list would break names with brackets.
    set(base "${CMAKE_CURRENT_SOURCE_DIR}")
    set(prefix "")
    set(option "")
    set(count 0)
    math(EXPR last "${ARGC} - 1")
    foreach(i RANGE 1 ${last})
        if(i GREATER last)
            break()
        endif()
        set(argument "${ARGV${i}}")
        if(option STREQUAL "PREFIX")
            set(prefix "${argument}")
            set(option "")
        elseif(option STREQUAL "BASE")
            cmake_path(ABSOLUTE_PATH argument NORMALIZE OUTPUT_VARIABLE base)
            set(option "")
        elseif(argument STREQUAL "PREFIX" OR argument STREQUAL "BASE")
            set(option "${argument}")
        else()
            set(file_${count} "${argument}")
            math(EXPR count "${count} + 1")
        endif()
    endforeach()
    if(option)
        message(FATAL_ERROR "ky_add_resources: nothing follows ${option}")
    endif()
    if(count EQUAL 0)
        message(FATAL_ERROR "ky_add_resources: no files for ${target}")
    endif()

    set(generator "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/kyGenerateResources.cmake")
    set(stem "${CMAKE_CURRENT_BINARY_DIR}/${target}-resources-${number}")
    set(source "${stem}.cpp")
    # Two tables of one program differ in their symbols.
    string(SHA256 symbol "${stem}")
    string(SUBSTRING "${symbol}" 0 16 symbol)
    set(symbol "ky_resources_${symbol}")
    add_custom_command(
        OUTPUT "${source}"
        COMMAND "${CMAKE_COMMAND}" "-DKY_LIST=${stem}.cmake" "-DKY_SOURCE=${source}"
                "-DKY_SYMBOL=${symbol}" -P "${generator}"
        DEPENDS "${stem}.cmake" "${generator}"
        COMMENT "Putting resources into ${target}"
        VERBATIM)

    set(list "set(count ${count})\n")
    math(EXPR last "${count} - 1")
    foreach(i RANGE ${last})
        set(file "${file_${i}}")
        if("${prefix}${file}" MATCHES "\n|]==]")
            message(FATAL_ERROR "ky_add_resources: cannot carry the name ${prefix}${file}")
        endif()
        cmake_path(ABSOLUTE_PATH file NORMALIZE)
        cmake_path(RELATIVE_PATH file BASE_DIRECTORY "${base}" OUTPUT_VARIABLE name)
        if(name MATCHES "^\\.\\.?(/|$)")
            message(FATAL_ERROR "ky_add_resources: ${file} is outside ${base}")
        endif()
        if(NOT file MATCHES "^[-+., _/0-9A-Za-z]*$" AND EXISTS "${file}")
            # For make, ninja and the assembler, each of which has names that it cannot carry.
            set(alias "${stem}-${i}")
            file(CREATE_LINK "${file}" "${alias}" SYMBOLIC)
            set(file "${alias}")
        endif()
        string(APPEND list "set(path_${i} [==[${file}]==])\n"
                           "set(name_${i} [==[${prefix}${name}]==])\n")
        add_custom_command(OUTPUT "${source}" APPEND DEPENDS "${file}")
    endforeach()
    # A run of CMake that changes nothing leaves it untouched.
    set(previous "")
    if(EXISTS "${stem}.cmake")
        file(READ "${stem}.cmake" previous)
    endif()
    if(NOT list STREQUAL previous)
        file(WRITE "${stem}.cmake" "${list}")
    endif()
    # On its own: with another table in one unit its names would meet theirs.
    set_source_files_properties("${source}" PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON
                                SKIP_PRECOMPILE_HEADERS ON SKIP_AUTOGEN ON)
    target_sources(${target} PRIVATE "${source}")
    if(type STREQUAL "STATIC_LIBRARY")
        # Nobody else refers to that part of the archive.
        target_link_options(${target} INTERFACE "LINKER:-u,${symbol}_table")
    endif()
endfunction()
