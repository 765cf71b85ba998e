#include "base/pemblocks.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include "base/opensslutil.h"

namespace tavik {

bool readPemBlocks(std::string_view text, std::vector<PemBlock>& blocks) {
  ERR_set_mark();
  BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  for (;;) {
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    const int read = bio ? PEM_read_bio(bio.get(), &name, &header, &data, &length) : 0;
    const OpenSSLCharsPtr ownedName(name), ownedHeader(header);
    const OpenSSLBytesPtr ownedData(data);
    if (read == 0) break;
    blocks.push_back(
        {name, header == nullptr ? "" : header,
         std::string(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length))});
  }
  // The end of the text reads as "no start line"; anything else is a block
  // that began and did not end well.
  const unsigned long error = ERR_peek_last_error();
  ERR_pop_to_mark();
  return bio && ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
}

}  // namespace tavik
