# The commit identifier: the first 16 hexadecimal digits of the checked-out commit, zeros outside a
# checkout of our own (a release archive, or our folder inside somebody else's repository). A build
# configures anew once another commit is checked out.
set(KY_COMMIT_ID "0000000000000000")
find_package(Git QUIET)
if(GIT_FOUND AND EXISTS "${PROJECT_SOURCE_DIR}/.git")
    execute_process(
        COMMAND ${GIT_EXECUTABLE} rev-parse --verify HEAD
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
        OUTPUT_VARIABLE ky_head
        OUTPUT_STRIP_TRAILING_WHITESPACE
        ERROR_QUIET
        RESULT_VARIABLE ky_head_failed)
    if(NOT ky_head_failed AND ky_head MATCHES "^[0-9a-f]+$")
        string(SUBSTRING "${ky_head}0000000000000000" 0 16 KY_COMMIT_ID)
    endif()
    # HEAD changes with the branch, its log with every commit.
    foreach(ky_name HEAD logs/HEAD)
        if(EXISTS "${PROJECT_SOURCE_DIR}/.git/${ky_name}")
            set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
                                                   "${PROJECT_SOURCE_DIR}/.git/${ky_name}")
        endif()
    endforeach()
endif()
configure_file(${PROJECT_SOURCE_DIR}/src/frame/Commit.h.in ${PROJECT_BINARY_DIR}/generated/Commit.h
               @ONLY)
