# cmake --install: headers, libraries, tools, a CMake package (find_package(TovarinBinder):
# Tovarin::binder, Tovarin::common, HostBinder::binder) and pkg-config files.
include(CMakePackageConfigHelpers)

set(TOVARIN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TovarinBinder)

# Exported names: HostBinder::binder, Tovarin::common, Tovarin::binder.
set_target_properties(hostbinder PROPERTIES EXPORT_NAME binder)
set_target_properties(tovarin_common PROPERTIES EXPORT_NAME common)
set_target_properties(tovarin_binder PROPERTIES EXPORT_NAME binder)

install(TARGETS hostbinder EXPORT HostBinderTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS tovarin_common tovarin_binder EXPORT TovarinTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# android_platform is an interface target the exported ones link to.
install(TARGETS android_platform EXPORT HostBinderTargets)

install(DIRECTORY host/binder/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hostbinder)
install(DIRECTORY host/tovarin_common/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tovarin_common)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tovarin)

install(EXPORT HostBinderTargets NAMESPACE HostBinder:: DESTINATION ${TOVARIN_CMAKE_DIR})
install(EXPORT TovarinTargets NAMESPACE Tovarin:: DESTINATION ${TOVARIN_CMAKE_DIR})

configure_package_config_file(cmake/TovarinBinderConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/TovarinBinderConfig.cmake INSTALL_DESTINATION ${TOVARIN_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TovarinBinderConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TovarinBinderConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/TovarinBinderConfigVersion.cmake
        DESTINATION ${TOVARIN_CMAKE_DIR})

foreach(pc hostbinder tovarin_common tovarin_binder)
    configure_file(cmake/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
