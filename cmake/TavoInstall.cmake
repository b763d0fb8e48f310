# What `cmake --install` puts in place, and the package files that let applications find it:
#
#   <prefix>/lib/libtavombbms.so.<version>   the engine (SONAME libtavombbms.so.<major>)
#   <prefix>/include/tavombbms/              the exported headers (the include dir)
#   <prefix>/bin/                            the tools (reference play engine, demo, ...)
#   <prefix>/lib/cmake/TavoMBBMS/            find_package(TavoMBBMS): TavoMBBMS::tavombbms
#   <prefix>/lib/pkgconfig/tavombbms.pc      pkg-config module tavombbms
#   <prefix>/lib/tavombbms/libsimagent.so    the broadcast simulator agent (component Simulator)
#   <prefix>/share/tavombbms/sim/            its content, one .h264 and .aac per service
#   <prefix>/share/man/man1/<tool>.1         a manual page per tool
#   <prefix>/share/doc/tavombbms/            LICENSE and NOTICE
#
# Nothing installed names a place in the build tree: programs find the engine through an
# $ORIGIN-relative RPATH, the demo finds the simulator relative to its own directory and the
# simulator finds its content relative to its own file. So that the same relative lookups
# work before installation, the build tree keeps the installed layout for these: the tools in
# <build>/bin, the simulator in <build>/lib/tavombbms, its content in <build>/share/tavombbms/sim.
#
# The play-engine SDK (target tavoplayengine, sdk/CMakeLists.txt) installs its library and
# headers (TavoPlayEngine.h and the layout, semaphore and protocol headers) itself, into the
# same include directory, and exports its target into TavoMBBMSTargets; its pkg-config module
# is written here. The package's PlayEngineSDK component is that target.
#
# Included by the top-level CMakeLists.txt after every target is defined.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TAVO_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/tavombbms)
set(TAVO_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/TavoMBBMS)
set(TAVO_INSTALL_SIM_AGENTDIR ${CMAKE_INSTALL_LIBDIR}/tavombbms)
set(TAVO_INSTALL_SIM_CONTENTDIR ${CMAKE_INSTALL_DATADIR}/tavombbms/sim)
set(TAVO_INSTALL_LICENSEDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/tavombbms)

# Programs installed to <prefix>/bin when they are part of the build. A new tool is one more
# name here.
set(TAVO_INSTALLED_TOOLS tavo_playengine tavo_demo tavo_repair tavo_agentcheck)

# The exported headers of the engine: the application interface, the play-engine status
# functions, the vendor agent contract, the recording repair and the package version. The
# shared-buffer layout, semaphore and socket protocol headers are installed with the SDK.
set(TAVO_PUBLIC_HEADERS
    ${PROJECT_SOURCE_DIR}/include/TavoMBBMSEngine.h
    ${PROJECT_SOURCE_DIR}/include/TavoMBBMSEngineStatus.h
    ${PROJECT_SOURCE_DIR}/include/MBBMSAgent.h
    ${PROJECT_SOURCE_DIR}/include/TavoRecordingRepair.h
    ${TAVO_GENERATED_INCLUDE_DIR}/TavoMBBMSVersion.h)

# --- The engine library --------------------------------------------------------------------
set_target_properties(tavombbms PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(tavombbms INTERFACE $<INSTALL_INTERFACE:${TAVO_INSTALL_INCLUDEDIR}>)

install(TARGETS tavombbms EXPORT TavoMBBMSTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development)
install(FILES ${TAVO_PUBLIC_HEADERS} DESTINATION ${TAVO_INSTALL_INCLUDEDIR} COMPONENT Development)

# --- Tools ---------------------------------------------------------------------------------
# Each with its manual page, man/man1/<tool>.1.
file(RELATIVE_PATH tavo_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
foreach(tool ${TAVO_INSTALLED_TOOLS})
    if(TARGET ${tool})
        set_target_properties(${tool} PROPERTIES
            INSTALL_RPATH "$ORIGIN/${tavo_bin_to_lib}"
            RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_BINDIR})
        install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
        set(tavo_man_page ${PROJECT_SOURCE_DIR}/man/man1/${tool}.1)
        if(EXISTS ${tavo_man_page})
            install(FILES ${tavo_man_page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
                COMPONENT Runtime)
        else()
            message(AUTHOR_WARNING "${tool} is installed without a manual page (${tavo_man_page})")
        endif()
    endif()
endforeach()

# --- Broadcast simulator -------------------------------------------------------------------
# Not a part of the engine: a stand-in tuner agent for examples and demos on a host. It is
# loaded by file name (as libsiano.so inside an android root), so it goes to a private
# directory rather than beside the engine. It finds its content from its own file's
# directory by the installed relative path (TAVO_SIM_AGENT_TO_CONTENT, also used by its test).
if(TARGET simagent)
    file(GLOB tavo_sim_content LIST_DIRECTORIES false
        ${PROJECT_SOURCE_DIR}/agents/sim/content/*.h264
        ${PROJECT_SOURCE_DIR}/agents/sim/content/*.aac)
    file(RELATIVE_PATH TAVO_SIM_AGENT_TO_CONTENT ${CMAKE_INSTALL_PREFIX}/${TAVO_INSTALL_SIM_AGENTDIR}
        ${CMAKE_INSTALL_PREFIX}/${TAVO_INSTALL_SIM_CONTENTDIR})
    target_compile_definitions(simagent PRIVATE
        TAVO_SIM_CONTENT_FROM_AGENT="${TAVO_SIM_AGENT_TO_CONTENT}")
    # The build tree's copy of the installed layout.
    set_target_properties(simagent PROPERTIES
        LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${TAVO_INSTALL_SIM_AGENTDIR})
    set(tavo_staged_content "")
    foreach(file ${tavo_sim_content})
        get_filename_component(name ${file} NAME)
        set(staged ${PROJECT_BINARY_DIR}/${TAVO_INSTALL_SIM_CONTENTDIR}/${name})
        add_custom_command(OUTPUT ${staged}
            COMMAND ${CMAKE_COMMAND} -E copy ${file} ${staged}
            DEPENDS ${file})
        list(APPEND tavo_staged_content ${staged})
    endforeach()
    add_custom_target(tavo_sim_content DEPENDS ${tavo_staged_content})
    add_dependencies(simagent tavo_sim_content)

    install(TARGETS simagent LIBRARY DESTINATION ${TAVO_INSTALL_SIM_AGENTDIR}
        COMPONENT Simulator NAMELINK_SKIP)
    install(FILES ${tavo_sim_content} DESTINATION ${TAVO_INSTALL_SIM_CONTENTDIR}
        COMPONENT Simulator)
endif()

# --- Licence ---------------------------------------------------------------------------------
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/NOTICE
    DESTINATION ${TAVO_INSTALL_LICENSEDIR} COMPONENT Runtime)

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
if(TARGET tavoplayengine)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/tavoplayengine.pc.in
        ${CMAKE_CURRENT_BINARY_DIR}/tavoplayengine.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tavoplayengine.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
endif()

# --- The demo ------------------------------------------------------------------------------
# It finds the simulator relative to its own directory, installed or in the build tree.
if(TARGET tavo_demo AND TARGET simagent)
    file(RELATIVE_PATH tavo_demo_to_agent ${CMAKE_INSTALL_FULL_BINDIR}
        ${CMAKE_INSTALL_PREFIX}/${TAVO_INSTALL_SIM_AGENTDIR}/libsimagent.so)
    file(RELATIVE_PATH tavo_demo_to_content ${CMAKE_INSTALL_FULL_BINDIR}
        ${CMAKE_INSTALL_PREFIX}/${TAVO_INSTALL_SIM_CONTENTDIR})
    target_compile_definitions(tavo_demo PRIVATE
        TAVO_DEMO_INSTALLED_SIM_AGENT="${tavo_demo_to_agent}"
        TAVO_DEMO_INSTALLED_SIM_CONTENT="${tavo_demo_to_content}")
endif()
