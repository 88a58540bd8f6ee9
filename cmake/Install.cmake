# What `cmake --install` puts where.

install(TARGETS kestro RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

foreach(section 1 3 5 8)
  file(GLOB pages CONFIGURE_DEPENDS man/*.${section})
  if(pages)
    install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endif()
endforeach()
