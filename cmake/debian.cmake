# `cpack -G DEB` in the build tree: one Debian package of everything
# `cmake --install` puts in place (library, headers, CMake and pkg-config
# files, the tool, its man page and bash completion), installed below /usr.
#
# Depends is read by dpkg-shlibdeps from what the package's programs and
# libraries are linked against (libc6, libstdc++6, libssl3,
# libboost-filesystem1.74.0, ...). Building against the headers also needs
# the development files of OpenSSL and Boost; a program that only runs the
# tool does not, so those are recommended rather than required.
set(CPACK_PACKAGE_NAME tavik-certcache)  # Debian names have no underscores
set(CPACK_PACKAGE_VENDOR "tavik")
set(CPACK_PACKAGE_CONTACT "tavik certificate cache maintainers <maintainers@users.noreply.c-seed-3bd09695.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "certificate file cache library and the certcache command-line tool")
# The summary becomes the first line of the package's description, this its body.
string(CONCAT CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "A C++17 library that keeps a program's X.509 certificates and their\n"
  "password-protected private keys as PEM files in the directories of a\n"
  "certificate store, finds them again by identifier, and makes new credentials:\n"
  "self-signed pairs, certificate requests and the installation of the signed\n"
  "certificate. The package holds the library, its headers, CMake and pkg-config\n"
  "files, and the certcache tool with its manual page and bash completion.")
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libssl-dev (>= 3.0), libboost-filesystem-dev, libboost-system-dev")
# A shared build gets a shlibs file and the ldconfig trigger.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_GENERATOR DEB)
include(CPack)
