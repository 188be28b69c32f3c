# The Debian package (scripts/package builds it): Debian's layout for the
# documentation, and CPack's DEB generator.
set(doc_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/sonderlark)

# Debian wants manual pages and the changelog compressed, without a timestamp.
set(compressed)
foreach(source ${SONDERLARK_MAN_PAGES} packaging/changelog)
  get_filename_component(name ${source} NAME)
  set(output ${CMAKE_BINARY_DIR}/compressed/${name}.gz)
  add_custom_command(OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/compressed
    COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/${source} > ${output}
    DEPENDS ${PROJECT_SOURCE_DIR}/${source})
  list(APPEND compressed ${output})
endforeach()
add_custom_target(compressed_docs ALL DEPENDS ${compressed})
list(FILTER compressed INCLUDE REGEX "\\.1\\.gz$")
install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_BINARY_DIR}/compressed/changelog.gz DESTINATION ${doc_dir} RENAME changelog.Debian.gz)
install(FILES packaging/copyright DESTINATION ${doc_dir})
install(FILES packaging/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME sonderlark)
install(FILES packaging/examples/sonderlark-mic.conf packaging/examples/sonderlark-mic.pa
        DESTINATION ${doc_dir}/examples)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME sonderlark)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGE_CONTACT "Sonderlark developers <maintainers@sonderlark.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "beamforming for a four-channel USB microphone array")
# CPack puts the summary first and indents the rest, an empty line as " .".
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "sonderlark records a four-channel microphone array (16 kHz, 32-bit) through
arecord, measures every channel, estimates the direction of the dominant
sound and forms a delay-and-sum beam. One-shot mode writes a mono WAV file
and a JSON manifest; live mode streams the beam into a FIFO that PipeWire or
PulseAudio turns into a virtual microphone, with a JSON status file.

Also included: sonderlark-doctor checks an array and its virtual microphone,
sonderlark-mic publishes the live beam as a low-latency PipeWire source,
sonderlark-monitor watches a live run, sonderlark-sim simulates the array,
and a systemd user unit runs live mode as a service.")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "alsa-utils")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "pipewire-pulse | pulseaudio-utils")
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
if(CMAKE_CROSSCOMPILING)
  execute_process(COMMAND dpkg-architecture -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
                  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE
                  ERROR_QUIET COMMAND_ERROR_IS_FATAL ANY)
endif()
include(CPack)
