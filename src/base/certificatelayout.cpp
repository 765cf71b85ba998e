#include "base/certificatelayout.h"

#include "base/derreader.h"

namespace tavik {

namespace {

// Deeper nesting than this is not found in certificates; refusing it bounds
// the recursion on hostile input.
constexpr int kMaxDepth = 24;

// Checks that the content of every constructed value is a run of values that
// fills it exactly, all the way down.
bool wellFormed(DerCursor values, int depth) {
  if (depth > kMaxDepth) return false;
  while (!values.empty()) {
    unsigned char tag = 0;
    DerCursor content;
    if (!values.nextAny(tag, content)) return false;
    if ((tag & der::kConstructed) != 0 && !wellFormed(content, depth + 1)) return false;
  }
  return true;
}

bool nextTime(DerCursor& values) {
  unsigned char tag = 0;
  DerCursor time;
  return values.nextAny(tag, time) && (tag == der::kUtcTime || tag == der::kGeneralizedTime);
}

bool parseTbs(DerCursor tbs, CertificateLayout& layout) {
  DerCursor field;
  DerCursor validity;
  DerCursor subject;
  DerCursor subjectElement;
  // The version is optional; a value that cannot be read fails at the serial number.
  tbs.next(der::kVersion, field);
  if (!tbs.next(der::kInteger, field) || field.empty()) return false;  // serial number
  if (!tbs.next(der::kSequence, field)) return false;                  // signature
  if (!tbs.next(der::kSequence, field)) return false;                  // issuer
  if (!tbs.next(der::kSequence, validity) || !nextTime(validity) || !nextTime(validity) ||
      !validity.empty()) {
    return false;
  }
  if (!tbs.next(der::kSequence, subject, subjectElement)) return false;
  if (!tbs.next(der::kSequence, field)) return false;  // subject public key info

  layout.subject = subjectElement.data();
  layout.subjectLength = subjectElement.size();
  layout.extensions = nullptr;
  layout.extensionsLength = 0;
  // The optional tail: issuer unique id, subject unique id, extensions, in this order.
  unsigned char lastTag = 0;
  while (!tbs.empty()) {
    unsigned char tag = 0;
    if (!tbs.nextAny(tag, field)) return false;
    const bool known =
        tag == der::kIssuerUniqueId || tag == der::kSubjectUniqueId || tag == der::kExtensions;
    if (!known || tag <= lastTag) return false;
    lastTag = tag;
    if (tag == der::kExtensions) {
      DerCursor list;
      DerCursor listElement;
      if (!field.next(der::kSequence, list, listElement) || !field.empty()) return false;
      layout.extensions = listElement.data();
      layout.extensionsLength = listElement.size();
    }
  }
  return true;
}

}  // namespace

bool parseCertificateLayout(const unsigned char* bytes, std::size_t length,
                            CertificateLayout& layout) {
  DerCursor input(bytes, length);
  DerCursor certificate;
  if (!input.next(der::kSequence, certificate) || !input.empty()) return false;
  if (!wellFormed(certificate, 1)) return false;
  DerCursor tbs;
  DerCursor field;
  if (!certificate.next(der::kSequence, tbs)) return false;
  if (!certificate.next(der::kSequence, field)) return false;   // signature algorithm
  if (!certificate.next(der::kBitString, field)) return false;  // signature value
  if (!certificate.empty()) return false;
  return parseTbs(tbs, layout);
}

}  // namespace tavik
