# What is installed. Everything finds everything else by where it lies
# itself, so an installed tree may be moved.
include(CMakePackageConfigHelpers)

set(hx_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/hxcrate)

file(RELATIVE_PATH hx_bin_to_lib /${CMAKE_INSTALL_FULL_BINDIR} /${CMAKE_INSTALL_FULL_LIBDIR})
# One path for both: where it is built the library lies beside the command. A path that is changed when
# it is installed would be filled up with empty entries before, and each means the working directory.
set_target_properties(hxcrate PROPERTIES BUILD_WITH_INSTALL_RPATH ON
                      INSTALL_RPATH "$ORIGIN;$ORIGIN/${hx_bin_to_lib}")
install(TARGETS hxcrate RUNTIME)

# The host looks for the module in its own folder, under the name with the major version.
install(TARGETS hxcrate_module LIBRARY)
install(TARGETS hxhost hxcrate_interfaces EXPORT hxcrateTargets LIBRARY)
# The API looks for it in its own folder. It is a package of its own.
if(TARGET hxremote)
  install(TARGETS hxremote LIBRARY COMPONENT remote NAMELINK_SKIP)
endif()
install(DIRECTORY api/hxcrate DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN *.hpp PATTERN *.h)

# For those who write a host of their own, under the paths by which the headers include each other.
install(FILES host/kernel.h host/encoding.h host/file_io.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hxcrate-module/host)
install(FILES module/entry.h module/crate.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hxcrate-module/module)
foreach(hx_header IN ITEMS records.h status.h export.h)
  install(FILES records/${hx_header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hxcrate-module/records)
  # Where they lay up to version 1.0; programs built elsewhere include them there.
  file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/generated/store/${hx_header}
       CONTENT "#pragma once\n\n#include \"records/${hx_header}\"\n")
  install(FILES ${PROJECT_BINARY_DIR}/generated/store/${hx_header}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hxcrate-module/store)
endforeach()

install(EXPORT hxcrateTargets NAMESPACE hxcrate:: FILE hxcrateConfig.cmake
        DESTINATION ${hx_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/generated/hxcrateConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/generated/hxcrateConfigVersion.cmake
        DESTINATION ${hx_cmake_dir})

file(RELATIVE_PATH hx_pc_to_prefix /${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig /${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" hx_pc_to_prefix "${hx_pc_to_prefix}")
foreach(hx_pc IN ITEMS hxcrate hxcrate-module)
  configure_file(cmake/${hx_pc}.pc.in ${PROJECT_BINARY_DIR}/generated/${hx_pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/generated/${hx_pc}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

install(FILES README.md CONTRIBUTING.md CHANGELOG.md TYPE DOC)
install(DIRECTORY docs examples TYPE DOC)
install(FILES tool/hxcrate.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 OPTIONAL)
install(FILES tool/completion.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME hxcrate OPTIONAL)
