# Install rules: the client library (shared and static), the host stand-ins of
# the device libraries it stands on, the public headers, both workers, a CMake
# package (find_package(QuillstoneDropbox)) and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QS_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/quillstone)
set(QS_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/QuillstoneDropbox)
set(QS_INSTALL_WORKERDIR ${CMAKE_INSTALL_BINDIR} CACHE STRING
    "Where the workers go (the device keeps them in /fwroot/bin)")

# The headers of the exported classes and free functions, and every header of
# the tree they include, followed to the end. Names absent from the tree are
# skipped, so the list can name classes still being written.
set(QS_EXPORTED_HEADERS dropbox.h dropbox_client.h dropboxsynchronizer.h auth.h dropboxprotocol.h
                        configuration.h filemetadatamanager.h file_scanner.h string_utils.h)
# Appends to the list `queue` the first of the header folders that holds
# `name`; a system header, found in none, adds nothing.
macro(qs_queue_header name)
  foreach(dir ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/base_toolkit
              ${CMAKE_SOURCE_DIR}/platform/include)
    if(EXISTS ${dir}/${name})
      list(APPEND queue ${dir}/${name})
      break()
    endif()
  endforeach()
endmacro()
function(qs_header_closure out)
  set(queue)
  foreach(name ${ARGN})
    qs_queue_header(${name})
  endforeach()
  set(found)
  while(queue)
    list(POP_FRONT queue header)
    if(header IN_LIST found)
      continue()
    endif()
    list(APPEND found ${header})
    file(STRINGS ${header} includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
    foreach(line ${includes})
      string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*" "\\1" name "${line}")
      qs_queue_header(${name})
    endforeach()
  endwhile()
  # A new include in any of them changes the set.
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${found})
  set(${out} ${found} PARENT_SCOPE)
endfunction()
qs_header_closure(QS_PUBLIC_HEADERS ${QS_EXPORTED_HEADERS})
install(FILES ${QS_PUBLIC_HEADERS} DESTINATION ${QS_INSTALL_INCLUDEDIR})

# Exported names: QuillstoneDropbox::dropbox (shared), ::dropbox_static, and
# the device libraries' host stand-ins ::device and ::device_static.
set_target_properties(dropbox_shared PROPERTIES EXPORT_NAME dropbox)
set_target_properties(dropbox PROPERTIES EXPORT_NAME dropbox_static)
set_target_properties(qs_platform_shared PROPERTIES EXPORT_NAME device)
set_target_properties(qs_platform PROPERTIES EXPORT_NAME device_static)
# The shared library finds its sibling wherever the prefix is put.
set_target_properties(dropbox_shared PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS dropbox dropbox_shared qs_platform qs_platform_shared
        EXPORT QuillstoneDropboxTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${QS_INSTALL_INCLUDEDIR})
install(EXPORT QuillstoneDropboxTargets NAMESPACE QuillstoneDropbox::
        DESTINATION ${QS_INSTALL_CMAKEDIR})

foreach(worker dropbox_sync dropbox_auth)
  if(TARGET ${worker})
    install(TARGETS ${worker} RUNTIME DESTINATION ${QS_INSTALL_WORKERDIR})
  endif()
endforeach()

configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/QuillstoneDropboxConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/QuillstoneDropboxConfig.cmake
                              INSTALL_DESTINATION ${QS_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/QuillstoneDropboxConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/QuillstoneDropboxConfig.cmake
              ${CMAKE_BINARY_DIR}/QuillstoneDropboxConfigVersion.cmake
        DESTINATION ${QS_INSTALL_CMAKEDIR})

# The file finds the prefix from where it lies, so a staged install works too.
file(RELATIVE_PATH QS_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" QS_PC_PREFIX "${QS_PC_PREFIX}")
string(REPLACE ";" " -D" QS_PC_DEFINITIONS "-D${QS_PUBLIC_DEFINITIONS}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/quillstone-dropbox.pc.in
               ${CMAKE_BINARY_DIR}/quillstone-dropbox.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/quillstone-dropbox.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
