# Install rules: public headers under include/kivo, libkivo.so with its
# soname links, libkivo_static.a, the kivo tool, the CMake package
# (find_package(kivo) gives kivo::kivo and kivo::kivo_static) and the
# pkg-config files kivo.pc (shared) and kivo_static.pc.
include(CMakePackageConfigHelpers)

set(KIVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kivo)
set(KIVO_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

file(GLOB KIVO_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/*.h)
install(FILES ${KIVO_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kivo COMPONENT dev)

install(TARGETS kivo_shared kivo_static EXPORT kivoTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT lib NAMELINK_COMPONENT dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT lib)
install(TARGETS kivo RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)

install(EXPORT kivoTargets NAMESPACE kivo:: DESTINATION ${KIVO_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/kivoConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/kivoConfig.cmake INSTALL_DESTINATION ${KIVO_CMAKE_DIR})
# Until the library reaches 1.0 every minor version may change the API.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kivoConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kivoConfig.cmake ${PROJECT_BINARY_DIR}/kivoConfigVersion.cmake
        DESTINATION ${KIVO_CMAKE_DIR} COMPONENT dev)

# The .pc files find the prefix from their own place, so an install with
# `cmake --install --prefix` elsewhere stays usable.
file(RELATIVE_PATH KIVO_PC_TO_PREFIX /root/${KIVO_PKGCONFIG_DIR} /root)
string(REGEX REPLACE "/$" "" KIVO_PC_TO_PREFIX "${KIVO_PC_TO_PREFIX}")
set(KIVO_PC_PREFIX "\${pcfiledir}/${KIVO_PC_TO_PREFIX}")
foreach(var LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${var}}")
    set(KIVO_PC_${var} "${CMAKE_INSTALL_${var}}")
  else()
    set(KIVO_PC_${var} "\${prefix}/${CMAKE_INSTALL_${var}}")
  endif()
endforeach()
# What a program linked with the static library also needs: the C++ runtime,
# libm and threads.
set(libs ${KIVO_CXX_RUNTIME} m)
list(REMOVE_DUPLICATES libs)
list(TRANSFORM libs PREPEND -l)
list(APPEND libs ${CMAKE_THREAD_LIBS_INIT})
list(JOIN libs " " KIVO_PC_STATIC_LIBS)
configure_file(${PROJECT_SOURCE_DIR}/cmake/kivo.pc.in ${PROJECT_BINARY_DIR}/kivo.pc @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/cmake/kivo_static.pc.in ${PROJECT_BINARY_DIR}/kivo_static.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kivo.pc ${PROJECT_BINARY_DIR}/kivo_static.pc
        DESTINATION ${KIVO_PKGCONFIG_DIR} COMPONENT dev)
