# What find_package and pkg-config need, so written that the installed tree can be moved.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ZorChildProcessTracker)
install(EXPORT vel NAMESPACE Vel:: FILE VelTargets.cmake DESTINATION ${package_dir})
install(EXPORT ZorChildProcessTracker NAMESPACE Zor:: FILE ZorTargets.cmake
   DESTINATION ${package_dir})

# Before 1.0 a new minor version may change the interface.
write_basic_package_version_file(ZorChildProcessTrackerConfigVersion.cmake
   COMPATIBILITY SameMinorVersion)
install(FILES
   ${CMAKE_CURRENT_SOURCE_DIR}/cmake/ZorChildProcessTrackerConfig.cmake
   ${CMAKE_CURRENT_BINARY_DIR}/ZorChildProcessTrackerConfigVersion.cmake
   DESTINATION ${package_dir})

file(RELATIVE_PATH pkgconfig_to_prefix
   ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/ZorChildProcessTracker.pc.in ZorChildProcessTracker.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZorChildProcessTracker.pc
   DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
