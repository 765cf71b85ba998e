# `cmake --install`: the library, its headers below include/tavik/ with their
# paths, a CMake package so that find_package(tavik_certcache) gives the
# target tavik::certcache, and a pkg-config file for builds outside CMake.
# (The tool installs itself to bin/ in its own directory.) `cpack -G DEB` in
# the build tree packs all of it, the tool included (cmake/debian.cmake).
include(CMakePackageConfigHelpers)

set(TAVIK_CERTCACHE_CMAKE_DIR lib/cmake/tavik_certcache)

install(TARGETS tavik_certcache EXPORT tavik_certcacheTargets
  ARCHIVE DESTINATION lib
  LIBRARY DESTINATION lib)
# The public headers, and the ones they include; the rest of src/ is the
# library's own business.
foreach(header
    crypto/certificatefilecache.h crypto/certificateindex.h crypto/certreq.h
    crypto/credentialprofile.h crypto/certstorewatcher.h crypto/certificatechain.h
    crypto/revocationlist.h crypto/revocationlists.h
    base/certificate.h base/certificateidentity.h base/certificatefilter.h
    base/certificatestore.h base/configurationinit.h base/environment.h
    base/filename.h base/opensslutil.h base/secretstring.h base/stringutil.h
    log/log.h)
  get_filename_component(directory ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/src/${header} DESTINATION include/tavik/${directory})
endforeach()
install(EXPORT tavik_certcacheTargets
  NAMESPACE tavik::
  DESTINATION ${TAVIK_CERTCACHE_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tavik_certcacheConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tavik_certcacheConfig.cmake
  INSTALL_DESTINATION ${TAVIK_CERTCACHE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tavik_certcacheConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/tavik_certcacheConfig.cmake
  ${PROJECT_BINARY_DIR}/tavik_certcacheConfigVersion.cmake
  DESTINATION ${TAVIK_CERTCACHE_CMAKE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/tavik_certcache.pc.in
  ${PROJECT_BINARY_DIR}/tavik_certcache.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tavik_certcache.pc DESTINATION lib/pkgconfig)

include(${PROJECT_SOURCE_DIR}/cmake/debian.cmake)
