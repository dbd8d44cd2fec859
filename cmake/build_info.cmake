# What the module's version record says of the build. Everything but the identity of the commit
# comes from one moment: SOURCE_DATE_EPOCH, else the time of the commit, else now. Two builds of
# one commit are thus equal byte for byte.

find_package(Git QUIET)

function(hx_ask_git out)
  set(answer "")
  if(Git_FOUND)
    execute_process(COMMAND ${GIT_EXECUTABLE} ${ARGN} WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                    OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
  set(${out} "${answer}" PARENT_SCOPE)
endfunction()

# Two digits each.
string(REGEX REPLACE "^(.)$" "0\\1" HX_RELEASE_MAJOR ${PROJECT_VERSION_MAJOR})
string(REGEX REPLACE "^(.)$" "0\\1" HX_RELEASE_MINOR ${PROJECT_VERSION_MINOR})

# 13 characters, also of a version with one digit more.
set(HX_BUILD_LABEL hxcrate-${PROJECT_VERSION})
string(LENGTH ${HX_BUILD_LABEL} hx_label_length)
if(hx_label_length EQUAL 14)
  set(HX_BUILD_LABEL hxcrate${PROJECT_VERSION})
endif()

hx_ask_git(HX_BUILD_ID rev-parse HEAD)
string(SUBSTRING "${HX_BUILD_ID}0000000" 0 7 HX_BUILD_ID)

if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(HX_BUILD_TIME $ENV{SOURCE_DATE_EPOCH})
else()
  hx_ask_git(HX_BUILD_TIME log -1 --format=%ct)
  if(NOT HX_BUILD_TIME)
    string(TIMESTAMP HX_BUILD_TIME "%s" UTC)
  endif()
endif()
if(NOT HX_BUILD_TIME MATCHES "^[0-9]+$")
  message(FATAL_ERROR "SOURCE_DATE_EPOCH is no number of seconds: ${HX_BUILD_TIME}")
endif()

# TIMESTAMP formats the moment that this variable names.
set(hx_epoch_before "$ENV{SOURCE_DATE_EPOCH}")
set(ENV{SOURCE_DATE_EPOCH} ${HX_BUILD_TIME})
string(TIMESTAMP HX_RELEASE_DATE "%m%d%Y" UTC)
string(TIMESTAMP HX_BUILD_DATE_TEXT "%a %b %d %H:%M:%S UTC %Y" UTC)
if(hx_epoch_before STREQUAL "")
  unset(ENV{SOURCE_DATE_EPOCH})
else()
  set(ENV{SOURCE_DATE_EPOCH} ${hx_epoch_before})
endif()
string(REGEX REPLACE "^(... ...) 0" "\\1  " HX_BUILD_DATE_TEXT "${HX_BUILD_DATE_TEXT}")

configure_file(${PROJECT_SOURCE_DIR}/module/build_info.h.in
               ${PROJECT_BINARY_DIR}/generated/module/build_info.h @ONLY)

# A new commit has a new identity: configure again when HEAD moves.
hx_ask_git(hx_head_log rev-parse --path-format=absolute --git-path logs/HEAD)
if(hx_head_log AND EXISTS "${hx_head_log}")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${hx_head_log}")
endif()
