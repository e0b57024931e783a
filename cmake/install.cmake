# What `cmake --install` puts in place: the programs tamblin and wicket-host in bin/; the
# reader's skins, sample settings, sample feed and Synchronet's install-xtrn.ini in
# share/tamblin/, laid out as a run folder (a run looks for skins/ in its working directory);
# and, for door authors, libwicket with its headers under include/wicket/ (folders kept, so
# "door/door.h" reads as in this tree) and the pkg-config file wicket.pc:
#   c++ -std=c++20 mydoor.cpp $(pkg-config --cflags --libs wicket) -o mydoor
# A module's internal header (Xinternal.h, which only the module's own .cpp files include) and
# the test helpers stay out, so that no door builds on what a module may change at will.
include(GNUInstallDirs)

install(TARGETS tamblin wicket-host RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS wicket ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/wicket/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/wicket
        FILES_MATCHING PATTERN "*.h"
        PATTERN "*_testutil.h" EXCLUDE
        PATTERN "*internal.h" EXCLUDE)

set(TAMBLIN_SHARE_DIR ${CMAKE_INSTALL_DATADIR}/tamblin)
file(GLOB TAMBLIN_SKIN_FILES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/skins/*.ans)
install(FILES ${TAMBLIN_SKIN_FILES} DESTINATION ${TAMBLIN_SHARE_DIR}/skins)
install(FILES ${CMAKE_SOURCE_DIR}/samples/tamblin.cfg ${CMAKE_SOURCE_DIR}/samples/bbs-news.xml
              ${CMAKE_SOURCE_DIR}/install-xtrn.ini
        DESTINATION ${TAMBLIN_SHARE_DIR})

# wicket.pc names the prefix the tree is installed under, which `cmake --install --prefix`
# may change after configuring: the version and link flags are filled in now, the prefix at
# install time.
set(WICKET_PC_EXTRA_LIBS "")
if(TAMBLIN_SANITIZE)
  # An instrumented library needs the sanitizer runtimes in the door that links it.
  set(WICKET_PC_EXTRA_LIBS " -fsanitize=address,undefined")
endif()
set(WICKET_PC_PREFIX "@WICKET_PC_PREFIX@")
configure_file(${CMAKE_CURRENT_LIST_DIR}/wicket.pc.in ${CMAKE_BINARY_DIR}/wicket.pc.in @ONLY)
install(CODE "
  set(WICKET_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(_wicket_pc \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/wicket.pc\")
  message(STATUS \"Installing: \${_wicket_pc}\")
  configure_file(\"${CMAKE_BINARY_DIR}/wicket.pc.in\" \"\${_wicket_pc}\" @ONLY)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${_wicket_pc}\")
")
