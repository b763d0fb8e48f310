# What `cmake --install` puts in place, and the package files that let applications find it:
#
#   <prefix>/lib/libtavombbms.so.<version>   the engine (SONAME libtavombbms.so.<major>)
#   <prefix>/include/tavombbms/              TavoMBBMSEngine.h, MBBMSAgent.h (the include dir)
#   <prefix>/bin/                            the tools (reference play engine, demo, ...)
#   <prefix>/lib/cmake/TavoMBBMS/            find_package(TavoMBBMS): TavoMBBMS::tavombbms
#   <prefix>/lib/pkgconfig/tavombbms.pc      pkg-config module tavombbms
#   <prefix>/lib/tavombbms/libsimagent.so    the broadcast simulator agent (component Simulator)
#   <prefix>/share/tavombbms/sim/            its content, one .h264 and .aac per service
#
# Included by the top-level CMakeLists.txt after every target is defined.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TAVO_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/tavombbms)
set(TAVO_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/TavoMBBMS)
set(TAVO_INSTALL_SIM_AGENTDIR ${CMAKE_INSTALL_LIBDIR}/tavombbms)
set(TAVO_INSTALL_SIM_CONTENTDIR ${CMAKE_INSTALL_DATADIR}/tavombbms/sim)

# Programs installed to <prefix>/bin when they are part of the build. A new tool is one more
# name here.
set(TAVO_INSTALLED_TOOLS tavo_playengine tavo_demo tavo_repair)

# The exported headers: the application interface and the vendor agent contract. The
# shared-buffer layout and semaphore headers stay private to the engine and its reference
# play engine.
set(TAVO_PUBLIC_HEADERS
    ${PROJECT_SOURCE_DIR}/include/TavoMBBMSEngine.h
    ${PROJECT_SOURCE_DIR}/include/TavoMBBMSEngineStatus.h
    ${PROJECT_SOURCE_DIR}/include/MBBMSAgent.h)

# --- The engine library --------------------------------------------------------------------
set_target_properties(tavombbms PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(tavombbms INTERFACE $<INSTALL_INTERFACE:${TAVO_INSTALL_INCLUDEDIR}>)

install(TARGETS tavombbms EXPORT TavoMBBMSTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development)
install(FILES ${TAVO_PUBLIC_HEADERS} DESTINATION ${TAVO_INSTALL_INCLUDEDIR} COMPONENT Development)

# --- Tools ---------------------------------------------------------------------------------
file(RELATIVE_PATH tavo_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
foreach(tool ${TAVO_INSTALLED_TOOLS})
    if(TARGET ${tool})
        set_target_properties(${tool} PROPERTIES INSTALL_RPATH "$ORIGIN/${tavo_bin_to_lib}")
        install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
    endif()
endforeach()

# --- Broadcast simulator -------------------------------------------------------------------
# Not a part of the engine: a stand-in tuner agent for examples and demos on a host. It is
# loaded by file name (as libsiano.so inside an android root), so it goes to a private
# directory rather than beside the engine.
if(TARGET simagent)
    install(TARGETS simagent LIBRARY DESTINATION ${TAVO_INSTALL_SIM_AGENTDIR}
        COMPONENT Simulator NAMELINK_SKIP)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/agents/sim/content/
        DESTINATION ${TAVO_INSTALL_SIM_CONTENTDIR} COMPONENT Simulator
        FILES_MATCHING PATTERN "*.h264" PATTERN "*.aac")
endif()

# --- CMake package -------------------------------------------------------------------------
install(EXPORT TavoMBBMSTargets NAMESPACE TavoMBBMS::
    DESTINATION ${TAVO_INSTALL_CMAKEDIR} COMPONENT Development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TavoMBBMSConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/TavoMBBMSConfig.cmake
    INSTALL_DESTINATION ${TAVO_INSTALL_CMAKEDIR}
    PATH_VARS CMAKE_INSTALL_BINDIR TAVO_INSTALL_SIM_AGENTDIR TAVO_INSTALL_SIM_CONTENTDIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TavoMBBMSConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/TavoMBBMSConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/TavoMBBMSConfigVersion.cmake
    DESTINATION ${TAVO_INSTALL_CMAKEDIR} COMPONENT Development)

# --- pkg-config ----------------------------------------------------------------------------
# Relocatable: the prefix is found from the .pc file's own place.
file(RELATIVE_PATH tavo_pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" tavo_pc_to_prefix "${tavo_pc_to_prefix}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/tavombbms.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tavombbms.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tavombbms.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# --- The demo, installed ------------------------------------------------------------------
# It finds the simulator relative to its own directory when run from the installation.
if(TARGET tavo_demo AND TARGET simagent)
    file(RELATIVE_PATH tavo_demo_to_agent ${CMAKE_INSTALL_FULL_BINDIR}
        ${CMAKE_INSTALL_PREFIX}/${TAVO_INSTALL_SIM_AGENTDIR}/libsimagent.so)
    file(RELATIVE_PATH tavo_demo_to_content ${CMAKE_INSTALL_FULL_BINDIR}
        ${CMAKE_INSTALL_PREFIX}/${TAVO_INSTALL_SIM_CONTENTDIR})
    target_compile_definitions(tavo_demo PRIVATE
        TAVO_DEMO_INSTALLED_SIM_AGENT="${tavo_demo_to_agent}"
        TAVO_DEMO_INSTALLED_SIM_CONTENT="${tavo_demo_to_content}")
endif()
