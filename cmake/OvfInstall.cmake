# What an installation holds: the plug-in and its runtime, the tools, and for module authors the exported
# bencode classes with the host interfaces, a pkg-config file and a CMake package.
# Components: "runtime" (libraries, tools) and "development" (headers, pkg-config, CMake package).
include(CMakePackageConfigHelpers)

# The plug-in finds its runtime beside itself, wherever the prefix is. The host is loaded by name, so neither
# library carries a version in its file name: the suite's host opens "libovfeedback.so" and the plug-in names
# "libsuitecommon.so", as the suite ships them.
set_target_properties(ovfeedback PROPERTIES INSTALL_RPATH "$ORIGIN")
target_include_directories(ovfeedback INTERFACE "$<INSTALL_INTERFACE:${OVF_INSTALL_INCLUDEDIR}>")
target_compile_features(ovfeedback INTERFACE cxx_std_17)
set_target_properties(ovfeedback PROPERTIES EXPORT_NAME ovfeedback)
set_target_properties(suitecommon PROPERTIES EXPORT_NAME suitecommon)

install(TARGETS ovfeedback suitecommon EXPORT libovfeedbackTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime)
foreach(tool cef ovfeedback-receiver)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT runtime)
  endif()
endforeach()

# Exactly what a module author or a host needs: the bencode classes, the settings view, the enable test on the
# marker file, the exported utilities and device identity, and the plug-in interfaces, each under the name it
# has in the source tree. Nothing here may include a header that is not installed.
install(FILES PhoneHome/Bencode.h PhoneHome/BencodeSettings.h PhoneHome/PhoneHomePluginImp.h
  DESTINATION "${OVF_INSTALL_INCLUDEDIR}/PhoneHome" COMPONENT development)
install(FILES Utils/Utils.h DESTINATION "${OVF_INSTALL_INCLUDEDIR}/Utils" COMPONENT development)
install(FILES DeviceInfo/DeviceInfo.h DESTINATION "${OVF_INSTALL_INCLUDEDIR}/DeviceInfo" COMPONENT development)
install(FILES include/ApiExport.h include/Plugin.h include/IPhoneHomePlugin.h include/IPhoneHomePluginCB.h
  include/IComponentStatus.h include/IBencodeSettings.h
  DESTINATION "${OVF_INSTALL_INCLUDEDIR}" COMPONENT development)

install(EXPORT libovfeedbackTargets NAMESPACE libovfeedback:: DESTINATION "${OVF_INSTALL_CMAKEDIR}"
  COMPONENT development)
configure_package_config_file(cmake/libovfeedbackConfig.cmake.in
  "${CMAKE_CURRENT_BINARY_DIR}/package/libovfeedbackConfig.cmake" INSTALL_DESTINATION "${OVF_INSTALL_CMAKEDIR}")
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/package/libovfeedbackConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/package/libovfeedbackConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/package/libovfeedbackConfigVersion.cmake"
  DESTINATION "${OVF_INSTALL_CMAKEDIR}" COMPONENT development)

# The pkg-config file names the prefix the files are installed under, which "cmake --install --prefix" may
# choose only then: it is written at install time.
set(ovf_pc_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
install(CODE "
  set(ovf_pc \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${ovf_pc_dir}/libovfeedback.pc\")
  set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
  set(libdir \"${CMAKE_INSTALL_LIBDIR}\")
  set(includedir \"${OVF_INSTALL_INCLUDEDIR}\")
  set(version \"${PROJECT_VERSION}\")
  message(STATUS \"Installing: \${ovf_pc}\")
  configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/cmake/libovfeedback.pc.in\" \"\${ovf_pc}\" @ONLY)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${CMAKE_INSTALL_PREFIX}/${ovf_pc_dir}/libovfeedback.pc\")
" COMPONENT development)
