// Process-wide initialisation of what the library needs from OpenSSL.
//
// A ConfigurationInit object may be constructed during static initialisation.
// It allocates nothing through OpenSSL then, so a program can still install its
// own allocator with CRYPTO_set_mem_functions at the start of main(). OpenSSL
// itself is initialised once, on the library's first use of it (ensure()).
#ifndef TAVIK_BASE_CONFIGURATIONINIT_H_
#define TAVIK_BASE_CONFIGURATIONINIT_H_

namespace tavik {

class ConfigurationInit {
 public:
  ConfigurationInit();
  ~ConfigurationInit();
  ConfigurationInit(const ConfigurationInit&) = delete;
  ConfigurationInit& operator=(const ConfigurationInit&) = delete;

  // Loads OpenSSL's error strings and algorithms, once per process; later
  // calls return at once. Called by the library before it uses OpenSSL; safe
  // from several threads at once.
  static void ensure();
};

}  // namespace tavik

#endif  // TAVIK_BASE_CONFIGURATIONINIT_H_
