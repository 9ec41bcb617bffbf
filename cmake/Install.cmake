# What `cmake --install` puts under the prefix, in two components that are
# also the two Debian packages:
#   runtime (ombrix):            bin/ombrix, the module in lib/<multiarch>/ombrix/modules/,
#                                the manual page, README, licence, examples and docs
#   sdk (libombrix-sdk-dev):     include/Ombrix/ (SDK) and include/Ombrix/Host/ (the
#                                reference engine), their static libraries, the CMake
#                                package OmbrixSDK and the pkg-config files
# Tests, test data, fuzz targets and benchmarks are never installed.
include(CMakePackageConfigHelpers)

# Who the packages and their changelog name as maintainer; distributors set their own.
set(OMBRIX_PACKAGE_MAINTAINER "Cryptography for Ombrix developers <packages@ombrix.example>"
    CACHE STRING "Maintainer named by the Debian packages")

set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(OMBRIX_RUNTIME_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/ombrix)
set(OMBRIX_SDK_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/libombrix-sdk-dev)
set(OMBRIX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/OmbrixSDK)
set(OMBRIX_PACKAGE_FILES ${PROJECT_BINARY_DIR}/package-files)

# --- runtime -------------------------------------------------------------
install(TARGETS ombrix RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(TARGETS Cryptography LIBRARY DESTINATION ${OMBRIX_MODULE_INSTALL_DIR} COMPONENT runtime)
install(FILES ${PROJECT_BINARY_DIR}/tools/ombrix/ombrix.1.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/NOTICE
        DESTINATION ${OMBRIX_RUNTIME_DOCDIR} COMPONENT runtime)
# Examples that start with "#!" run as commands (mode 0755); the rest are 0644.
# An edited example configures again, in case its first line changed.
file(GLOB OMBRIX_EXAMPLE_FILES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/examples/*.lua)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${OMBRIX_EXAMPLE_FILES})
set(OMBRIX_EXAMPLE_SCRIPTS)
set(OMBRIX_EXAMPLE_SCRIPT_EXCLUDES)
foreach(example ${OMBRIX_EXAMPLE_FILES})
  file(READ ${example} start LIMIT 2 HEX)
  if(start STREQUAL "2321")  # "#!"
    get_filename_component(example_name ${example} NAME)
    list(APPEND OMBRIX_EXAMPLE_SCRIPTS ${example})
    list(APPEND OMBRIX_EXAMPLE_SCRIPT_EXCLUDES PATTERN ${example_name} EXCLUDE)
  endif()
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ DESTINATION ${OMBRIX_RUNTIME_DOCDIR}/examples
        COMPONENT runtime PATTERN host EXCLUDE ${OMBRIX_EXAMPLE_SCRIPT_EXCLUDES})
install(PROGRAMS ${OMBRIX_EXAMPLE_SCRIPTS} DESTINATION ${OMBRIX_RUNTIME_DOCDIR}/examples COMPONENT runtime)
# docs/*.md: the host guide goes with the SDK, the rest with the command.
if(EXISTS ${PROJECT_SOURCE_DIR}/docs)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${OMBRIX_RUNTIME_DOCDIR} COMPONENT runtime
          FILES_MATCHING PATTERN "*.md" PATTERN "host-sdk.md" EXCLUDE)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${OMBRIX_SDK_DOCDIR} COMPONENT sdk
          FILES_MATCHING PATTERN "host-sdk.md")
endif()

# --- sdk -----------------------------------------------------------------
set_target_properties(ombrix_sdk PROPERTIES EXPORT_NAME SDK)
set_target_properties(ombrix_host PROPERTIES EXPORT_NAME Host)
install(TARGETS ombrix_sdk ombrix_host EXPORT OmbrixSDKTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT sdk)
# `cmake --install --strip` and the packages (CPACK_STRIP_FILES) drop the debug
# sections of the static libraries too, as Debian's -dev packages do.
foreach(library ombrix_sdk ombrix_host)
  install(CODE "if(CMAKE_INSTALL_DO_STRIP)
  execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-debug
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/$<TARGET_FILE_NAME:${library}>\"
    COMMAND_ERROR_IS_FATAL ANY)
endif()" COMPONENT sdk)
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/sdk/Ombrix/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Ombrix
        COMPONENT sdk FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/host/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Ombrix/Host
        COMPONENT sdk FILES_MATCHING PATTERN "*.h")
install(EXPORT OmbrixSDKTargets NAMESPACE OmbrixSDK:: DESTINATION ${OMBRIX_CMAKE_DIR} COMPONENT sdk)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/OmbrixSDKConfig.cmake.in
                              ${OMBRIX_PACKAGE_FILES}/OmbrixSDKConfig.cmake
                              INSTALL_DESTINATION ${OMBRIX_CMAKE_DIR})
write_basic_package_version_file(${OMBRIX_PACKAGE_FILES}/OmbrixSDKConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${OMBRIX_PACKAGE_FILES}/OmbrixSDKConfig.cmake ${OMBRIX_PACKAGE_FILES}/OmbrixSDKConfigVersion.cmake
        DESTINATION ${OMBRIX_CMAKE_DIR} COMPONENT sdk)
# pkg-config files whose prefix is found from their own place, so a moved tree works.
file(RELATIVE_PATH OMBRIX_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" OMBRIX_PC_TO_PREFIX "${OMBRIX_PC_TO_PREFIX}")
foreach(pc ombrix-sdk ombrix-host)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${OMBRIX_PACKAGE_FILES}/${pc}.pc @ONLY)
  install(FILES ${OMBRIX_PACKAGE_FILES}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT sdk)
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/host/ DESTINATION ${OMBRIX_SDK_DOCDIR}/examples/host
        COMPONENT sdk)

# --- both: licence terms and changelog as Debian places them ---------------
foreach(component runtime sdk)
  if(component STREQUAL runtime)
    set(OMBRIX_DEB_PACKAGE ombrix)
    set(docdir ${OMBRIX_RUNTIME_DOCDIR})
  else()
    set(OMBRIX_DEB_PACKAGE libombrix-sdk-dev)
    set(docdir ${OMBRIX_SDK_DOCDIR})
  endif()
  configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${OMBRIX_PACKAGE_FILES}/${component}/changelog @ONLY)
  execute_process(COMMAND gzip -9nf ${OMBRIX_PACKAGE_FILES}/${component}/changelog COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${OMBRIX_PACKAGE_FILES}/${component}/changelog.gz
          DESTINATION ${docdir} COMPONENT ${component})
endforeach()
