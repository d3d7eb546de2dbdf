# The Debian package: "cpack -G DEB" in a build directory. One package holds the suite's plug-in, its runtime,
# the host under systemd, the tools and the files for module authors.
#
# The install root is compiled into the plug-in, so the package installs under the prefix of the build, which
# is the install root unless the build was told otherwise: a package is made from a build whose install root
# is the production one (the default preset's /opt/velmar/orvane). Its files then lie in
# /opt/velmar/orvane/{bin,lib,include}, the host's settings in /etc/opt/velmar/orvane and the unit in
# /lib/systemd/system.
set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "libovfeedback")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_VENDOR "Velmar")
set(CPACK_PACKAGE_CONTACT "Velmar client suite team <suite@velmar.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Customer Experience Feedback module of the client suite")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
# Debug information stays in the build tree; the exported symbols are in the dynamic tables that stripping keeps.
set(CPACK_STRIP_FILES TRUE)

set(CPACK_DEBIAN_FILE_NAME "DEB-DEFAULT")
set(CPACK_DEBIAN_PACKAGE_SECTION "net")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "The plug-in libovfeedback.so and the runtime it runs on, \
libsuitecommon.so; the reference host ovfeedback-host with its systemd unit; the tools cef and \
ovfeedback-receiver; and, for the suite's other modules, the headers of the bencode classes with a pkg-config \
file and a CMake package.")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Our own libraries are found in the package itself, through the binaries' $ORIGIN paths.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "ca-certificates")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)

# Maintainer scripts, with the install root and the unit of this build; a settings file under /etc is a conffile.
set(OVF_HOST_UNIT "ovfeedback-host.service")
set(ovf_control "${CMAKE_CURRENT_BINARY_DIR}/package/debian")
foreach(script postinst prerm postrm)
  configure_file("${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/${script}.in" "${ovf_control}/${script}" @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${ovf_control}/${script}")
endforeach()
if(OVF_HOST_SETTINGS_FILE MATCHES "^/etc/")
  file(WRITE "${ovf_control}/conffiles" "${OVF_HOST_SETTINGS_FILE}\n")
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${ovf_control}/conffiles")
endif()

include(CPack)
