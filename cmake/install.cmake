# What `cmake --install` and the packages hold: four components, and that of the
# Python package (python/CMakeLists.txt). Headers lie in one folder of their
# own, which pkg-config and the CMake package add to the search path.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(headers ${CMAKE_INSTALL_INCLUDEDIR}/kspool)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/kspool)

# Programs and libraries find each other wherever the whole is moved to. Debian's packages do without.
file(RELATIVE_PATH libraries /x/${CMAKE_INSTALL_BINDIR} /x/${CMAKE_INSTALL_LIBDIR})
set_target_properties(kspool kspool_platform PROPERTIES INSTALL_RPATH $ORIGIN)

install(DIRECTORY include/ DESTINATION ${headers} COMPONENT development
        FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")
install(DIRECTORY platform DESTINATION ${headers} COMPONENT development
        FILES_MATCHING PATTERN "*.h" PATTERN standin EXCLUDE)
install(TARGETS kspool kspool_platform kspool_static kspool_platform_static
        EXPORT kspool
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        INCLUDES DESTINATION ${headers})
install(EXPORT kspool NAMESPACE kspool:: FILE kspoolTargets.cmake DESTINATION ${package}
        COMPONENT development)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/kspoolConfig.cmake @ONLY CONTENT [[
# Targets kspool::kspool and kspool::kspool_static, each with its platform.
include(CMakeFindDependencyMacro)
find_dependency(CURL)
include(${CMAKE_CURRENT_LIST_DIR}/kspoolTargets.cmake)
]])
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kspoolConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kspoolConfig.cmake ${PROJECT_BINARY_DIR}/kspoolConfigVersion.cmake
        DESTINATION ${package} COMPONENT development)
# Relative to themselves, so that the whole may be moved.
file(RELATIVE_PATH up /x/${CMAKE_INSTALL_LIBDIR}/pkgconfig /x)
foreach(name kspool kspool-platform kspool-static)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT development)
endforeach()

file(GLOB pages CONFIGURE_DEPENDS docs/man/*.3)
# Each function has a page of its own, which leads to that of its family: `man KSCacheAdd`.
foreach(page IN LISTS pages)
  get_filename_component(family ${page} NAME)
  file(STRINGS ${page} functions REGEX "^\\.SS ")
  foreach(function IN LISTS functions)
    string(REPLACE ".SS " "" function ${function})
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/man3/${function}.3 CONTENT ".so man3/${family}\n")
    list(APPEND pages ${PROJECT_BINARY_DIR}/man3/${function}.3)
  endforeach()
endforeach()
install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
foreach(program kspool-agent kspool-cache kspool-mb kspool-sandbox)
  if(TARGET ${program})
    set_target_properties(${program} PROPERTIES INSTALL_RPATH $ORIGIN/${libraries})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    install(FILES docs/man/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
    install(FILES tools/shared/kspool.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
            RENAME ${program} COMPONENT tools)
  endif()
endforeach()
install(FILES README.md SECURITY.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR}
        COMPONENT documentation)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
        PATTERN man EXCLUDE PATTERN "*.dat" EXCLUDE)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
