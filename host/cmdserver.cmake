# vtr-cmdserver: the reference host as an HTTP server (docs/cmdserver.md).
# Included from host/CMakeLists.txt; built only natively, when libmicrohttpd is found.
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND AND NOT CMAKE_CROSSCOMPILING)
  pkg_check_modules(MICROHTTPD IMPORTED_TARGET libmicrohttpd)
endif()

# The host-side helpers vtr-host and vtr-cmdserver share.
add_library(vtr_hostlib STATIC
  ${CMAKE_CURRENT_LIST_DIR}/plugin_loader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/drives_namespace.cpp
  ${CMAKE_CURRENT_LIST_DIR}/watch.cpp)
target_include_directories(vtr_hostlib PUBLIC ${CMAKE_SOURCE_DIR})
target_link_libraries(vtr_hostlib PUBLIC ${CMAKE_DL_LIBS})
target_compile_definitions(vtr_hostlib PRIVATE FILEOP_INSTALL_LIBDIR="${CMAKE_INSTALL_LIBDIR}")

if(MICROHTTPD_FOUND AND NOT CMAKE_CROSSCOMPILING)
  set(console_page_cpp ${CMAKE_CURRENT_BINARY_DIR}/web_page.cpp)
  add_custom_command(
    OUTPUT ${console_page_cpp}
    COMMAND ${CMAKE_COMMAND} -DINPUT=${CMAKE_CURRENT_LIST_DIR}/web/index.html
            -DOUTPUT=${console_page_cpp} -DSYMBOL=console_page
            -P ${CMAKE_CURRENT_LIST_DIR}/embed_file.cmake
    DEPENDS ${CMAKE_CURRENT_LIST_DIR}/web/index.html ${CMAKE_CURRENT_LIST_DIR}/embed_file.cmake
    COMMENT "Embedding the browser console")
  add_executable(vtr-cmdserver
    ${CMAKE_CURRENT_LIST_DIR}/cmdserver.cpp
    ${CMAKE_CURRENT_LIST_DIR}/cmdserver_wire.cpp
    ${CMAKE_CURRENT_LIST_DIR}/event_hub.cpp
    ${console_page_cpp})
  target_link_libraries(vtr-cmdserver PRIVATE vtr_hostlib vtrsim PkgConfig::MICROHTTPD Threads::Threads)
  # The plug-in resolves the host functions from vtrsim: keep it DT_NEEDED.
  target_link_options(vtr-cmdserver PRIVATE -Wl,--no-as-needed)
  set_target_properties(vtr-cmdserver PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}
    INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  add_dependencies(vtr-cmdserver fileop_plugin)
  install(TARGETS vtr-cmdserver RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
else()
  message(STATUS "vtr-cmdserver is not built (it needs libmicrohttpd and is not cross-built)")
endif()

# "vtr-host watch" lives in watch.cpp.
target_link_libraries(vtr-host PRIVATE vtr_hostlib)
