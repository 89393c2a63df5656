# What `cmake --install` installs, and where: headers, libraries and their links, the CMake
# package, jactor.pc, manual pages, documents, examples, the tool, and a tmpfiles.d snippet.
include(CMakePackageConfigHelpers)

set(jactor_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/jactor")

# The libraries find each other, and the tool finds them, under any prefix.
# (CMAKE_SKIP_INSTALL_RPATH is for packages that go where the loader looks.)
file(RELATIVE_PATH jactor_lib_from_bin
  "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
set_target_properties(jactor PROPERTIES INSTALL_RPATH "$ORIGIN")

file(GLOB headers CONFIGURE_DEPENDS
  "${PROJECT_SOURCE_DIR}/libjactor/include/*.h" "${PROJECT_SOURCE_DIR}/libjactor/include/*.hpp")
install(FILES ${headers} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(TARGETS jactor EXPORT jactor-targets)
if(NOT JACTOR_SYSTEM_JLOG)
  install(FILES "${PROJECT_SOURCE_DIR}/jlog/include/jlog.h"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
  install(TARGETS jlog EXPORT jactor-targets)
endif()

# find_package(jactor 9)
install(EXPORT jactor-targets NAMESPACE jactor:: DESTINATION "${jactor_package_dir}")
configure_package_config_file(cmake/jactor-config.cmake.in
  "${PROJECT_BINARY_DIR}/jactor-config.cmake" INSTALL_DESTINATION "${jactor_package_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/jactor-config-version.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/jactor-config.cmake"
  "${PROJECT_BINARY_DIR}/jactor-config-version.cmake"
  DESTINATION "${jactor_package_dir}")

# pkg-config. The prefix is known only at installation (cmake --install --prefix).
install(CODE "
  set(version \"${PROJECT_VERSION}\")
  cmake_path(APPEND libdir \"\\\${prefix}\" \"${CMAKE_INSTALL_LIBDIR}\")
  cmake_path(APPEND includedir \"\\\${prefix}\" \"${CMAKE_INSTALL_INCLUDEDIR}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/jactor.pc.in\"
    \"${PROJECT_BINARY_DIR}/jactor.pc\" @ONLY)")
install(FILES "${PROJECT_BINARY_DIR}/jactor.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# Manual pages, and for each call a link to the page that describes it.
file(GLOB pages CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/man/*.[1-9]")
foreach(page IN LISTS pages)
  string(REGEX REPLACE "^.*\\." "" section "${page}")
  install(FILES "${page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
endforeach()
file(STRINGS "${PROJECT_SOURCE_DIR}/man/aliases.txt" aliases REGEX "^[^#]")
foreach(line IN LISTS aliases)
  string(REGEX MATCH "^([^ ]+\\.([1-9])) +([^ ]+)$" matched "${line}")
  if(NOT matched)
    message(FATAL_ERROR "man/aliases.txt: not an alias and its page: ${line}")
  endif()
  install(CODE "
    file(CREATE_LINK \"${CMAKE_MATCH_3}\"
      \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_MANDIR}/man${CMAKE_MATCH_2}/${CMAKE_MATCH_1}\"
      SYMBOLIC)")
endforeach()

# The documents, which refer to each other by these paths, and the examples.
install(FILES README.md NEWS.md SECURITY.md DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(DIRECTORY docs DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(FILES python/README.md DESTINATION "${CMAKE_INSTALL_DOCDIR}/python")
install(DIRECTORY examples DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  PATTERN CMakeLists.txt EXCLUDE)

if(TARGET jpipe)
  set_target_properties(jpipe PROPERTIES INSTALL_RPATH "$ORIGIN/${jactor_lib_from_bin}")
  install(TARGETS jpipe)
  install(FILES "${PROJECT_SOURCE_DIR}/tools/jpipe.bash"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME jpipe)

  # The bridge as a service, for both directions, and the user that it runs as.
  function(jactor_install_bridge command operands)
    install(CODE "
      set(command ${command})
      set(operands \"${operands}\")
      cmake_path(APPEND bindir \"\${CMAKE_INSTALL_PREFIX}\" \"${CMAKE_INSTALL_BINDIR}\")
      configure_file(\"${PROJECT_SOURCE_DIR}/cmake/jpipe@.service.in\"
        \"${PROJECT_BINARY_DIR}/jpipe-${command}@.service\" @ONLY)")
    install(FILES "${PROJECT_BINARY_DIR}/jpipe-${command}@.service"
      DESTINATION lib/systemd/system)
  endfunction()
  jactor_install_bridge(export "\\\${ENDPOINT} \\\${ADDRESS}")
  jactor_install_bridge(import "\\\${ADDRESS} \\\${ENDPOINT}")
  install(FILES "${PROJECT_SOURCE_DIR}/cmake/sysusers.conf"
    DESTINATION lib/sysusers.d RENAME jactor.conf)
endif()

# The run directory, made at boot, so that programs without privileges find it.
install(FILES "${PROJECT_SOURCE_DIR}/cmake/tmpfiles.conf"
  DESTINATION lib/tmpfiles.d RENAME jactor.conf)
