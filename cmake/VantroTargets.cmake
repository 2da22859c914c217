# Shared helpers for the project's targets: warnings, sanitizers, platform seams and tests.

set(VANTRO_WARNINGS -Wall -Wextra -Wpedantic)
if(VANTRO_WERROR)
    list(APPEND VANTRO_WARNINGS -Werror)
endif()

if(VANTRO_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
endif()

if(WIN32)
    set(VANTRO_PLATFORM_SUFFIX win)
else()
    set(VANTRO_PLATFORM_SUFFIX unix)
endif()

# Applies the project's warning flags and include layout to one of its own targets.
function(vantro_target_defaults target)
    target_compile_options(${target} PRIVATE ${VANTRO_WARNINGS})
endfunction()

# vantro_add_library(<name> [DEPS ...] [EXCLUDE file...])
# Builds every .cpp/.h of the calling folder into one static library. Platform seams follow the
# naming rule <concern>_win.cpp / <concern>_unix.cpp; only this platform's files are built.
function(vantro_add_library name)
    cmake_parse_arguments(ARG "" "" "DEPS;EXCLUDE" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    if(WIN32)
        list(FILTER sources EXCLUDE REGEX "_unix\\.cpp$")
    else()
        list(FILTER sources EXCLUDE REGEX "_win\\.cpp$")
    endif()
    foreach(excluded IN LISTS ARG_EXCLUDE)
        list(REMOVE_ITEM sources ${CMAKE_CURRENT_SOURCE_DIR}/${excluded})
    endforeach()
    add_library(${name} STATIC ${sources})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${CMAKE_BINARY_DIR}/generated)
    target_link_libraries(${name} PUBLIC ${ARG_DEPS})
    vantro_target_defaults(${name})
endfunction()

# vantro_add_test(<name> SOURCES ... LABELS ... [LIBS ...] [ENV ...] [TIMEOUT s])
# Every test gets its own HOME and XDG directories under the build tree so nothing leaks
# into the developer's real profile, and an update feed on a closed loopback port so an
# automatic update check never leaves the machine.
function(vantro_add_test name)
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LABELS;LIBS;ENV" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE Qt6::Test ${ARG_LIBS})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    vantro_target_defaults(${name})
    add_test(NAME ${name} COMMAND ${name})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 300)
    endif()
    set(home ${CMAKE_BINARY_DIR}/test-home/${name})
    set_tests_properties(${name} PROPERTIES
        LABELS "${ARG_LABELS}"
        TIMEOUT ${ARG_TIMEOUT}
        ENVIRONMENT "HOME=${home};XDG_DATA_HOME=${home}/.local/share;XDG_CONFIG_HOME=${home}/.config;XDG_CACHE_HOME=${home}/.cache;XDG_RUNTIME_DIR=${home}/run;QT_QPA_PLATFORM=offscreen;VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED=1;VANTRO_SIGN_UPDATE_FEED_URL=http://127.0.0.1:9/latest.json;QTWEBENGINE_DISABLE_SANDBOX=1;LOCALAPPDATA=;no_proxy=127.0.0.1,localhost;NO_PROXY=127.0.0.1,localhost;${ARG_ENV}")
    file(MAKE_DIRECTORY ${home}/run)
endfunction()
