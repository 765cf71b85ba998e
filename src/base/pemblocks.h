// Reading text that holds PEM blocks of any kind, as OpenSSL's PEM reader
// finds them: text around and between the blocks is passed over. What a
// person pastes (a bundle, an authority's reply, a revocation list) is read
// this way before each block is judged by its label.
#ifndef TAVIK_BASE_PEMBLOCKS_H_
#define TAVIK_BASE_PEMBLOCKS_H_

#include <string>
#include <string_view>
#include <vector>

namespace tavik {

struct PemBlock {
  std::string label;   // CERTIFICATE, X509 CRL, ENCRYPTED PRIVATE KEY, ...
  std::string header;  // the lines before its base64 ("Proc-Type: ..."), most often none
  std::string der;     // what its base64 holds
};

// Appends the PEM blocks of `text` to `blocks`, in their order. True when the
// text ends cleanly; false when a block that begins is broken or cut short,
// or there is no memory, with the blocks before it appended. OpenSSL's error
// queue is left as it was. Nothing throws but std::bad_alloc.
bool readPemBlocks(std::string_view text, std::vector<PemBlock>& blocks);

}  // namespace tavik

#endif  // TAVIK_BASE_PEMBLOCKS_H_
