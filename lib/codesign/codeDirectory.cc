// SPDX-License-Identifier: MIT
/*
 * The code directory: the small text that a signature covers.
 *
 * The text has one canonical form, so that any tool can write it and the
 * bytes that are hashed (the cdhash) are the bytes that were signed:
 * "Key: value" lines in a fixed order per kind, each ended by one LF, no
 * other blanks, no CR, no empty line, at most kMaxCodeDirectory bytes.
 * The parser accepts that form and nothing else; the formatter writes it.
 */
#include <cstring>

#include <openssl/evp.h>

#include "codesignInt.h"

namespace halcyx::codesign {

namespace {

constexpr const char *kFileKeys[] = {"CodeDirectory-Version", "Identifier", "Kind",
                                     "Hash-Type", "Content-Size", "Content-Hash"};
constexpr const char *kBundleKeys[] = {"CodeDirectory-Version", "Identifier", "Kind",
                                       "Hash-Type", "Info-Plist-Hash", "Resources-Hash"};
constexpr size_t kNumKeys = 6;

bool ParseHex(std::string_view hex, Digest *out) {
   if (hex.size() != 64) {
      return false;
   }
   for (size_t i = 0; i < 32; i++) {
      int v = 0;
      for (char c : hex.substr(2 * i, 2)) {
         v <<= 4;
         if (c >= '0' && c <= '9') {
            v |= c - '0';
         } else if (c >= 'a' && c <= 'f') {
            v |= c - 'a' + 10;
         } else {
            return false;  // upper case is not canonical
         }
      }
      (*out)[i] = static_cast<uint8_t>(v);
   }
   return true;
}

// Decimal without sign, blanks or leading zeros ("0" itself is fine).
bool ParseSize(std::string_view s, uint64_t *out) {
   if (s.empty() || s.size() > 19 || (s.size() > 1 && s[0] == '0')) {
      return false;
   }
   uint64_t v = 0;
   for (char c : s) {
      if (c < '0' || c > '9') {
         return false;
      }
      v = v * 10 + static_cast<uint64_t>(c - '0');
   }
   *out = v;
   return true;
}

}  // namespace

bool IsUtf8(std::string_view s) {
   size_t i = 0;
   while (i < s.size()) {
      auto c = static_cast<unsigned char>(s[i]);
      size_t len;
      uint32_t cp;
      if (c < 0x80) {
         i++;
         continue;
      } else if (c >= 0xC2 && c <= 0xDF) {
         len = 2, cp = c & 0x1F;
      } else if (c >= 0xE0 && c <= 0xEF) {
         len = 3, cp = c & 0x0F;
      } else if (c >= 0xF0 && c <= 0xF4) {
         len = 4, cp = c & 0x07;
      } else {
         return false;
      }
      if (s.size() - i < len) {
         return false;
      }
      for (size_t k = 1; k < len; k++) {
         auto cc = static_cast<unsigned char>(s[i + k]);
         if ((cc & 0xC0) != 0x80) {
            return false;
         }
         cp = (cp << 6) | (cc & 0x3F);
      }
      if ((len == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
          (len == 4 && (cp < 0x10000 || cp > 0x10FFFF))) {
         return false;
      }
      i += len;
   }
   return true;
}

std::string HexOf(const uint8_t *bytes, size_t size) {
   static constexpr char kDigits[] = "0123456789abcdef";
   std::string hex;
   hex.reserve(2 * size);
   for (size_t i = 0; i < size; i++) {
      hex.push_back(kDigits[bytes[i] >> 4]);
      hex.push_back(kDigits[bytes[i] & 0xF]);
   }
   return hex;
}

// OpenSSL 3 looks an algorithm up by name on every use of EVP_sha256();
// one explicit fetch saves that on each of the many hashes of a bundle.
const EVP_MD *Sha256Md() {
   static EVP_MD *md = EVP_MD_fetch(nullptr, "SHA2-256", nullptr);
   return md ? md : EVP_sha256();
}

Digest Sha256(const void *data, size_t size) {
   Digest d{};
   unsigned int len = 0;
   EVP_Digest(data, size, d.data(), &len, Sha256Md(), nullptr);
   return d;
}

bool IdentifierIsValid(std::string_view identifier) {
   if (identifier.empty() || !IsUtf8(identifier)) {
      return false;
   }
   // C0 controls and DEL are single bytes; the C1 controls U+0080 to
   // U+009F are the two-byte sequences C2 80 to C2 9F.
   for (size_t i = 0; i < identifier.size(); i++) {
      auto u = static_cast<unsigned char>(identifier[i]);
      if (u < 0x20 || u == 0x7F ||
          (u == 0xC2 && static_cast<unsigned char>(identifier[i + 1]) <= 0x9F)) {
         return false;
      }
   }
   return true;
}

bool ParseCodeDirectory(std::string_view text, CodeDirectory *out) {
   if (text.size() > kMaxCodeDirectory || text.empty() || text.back() != '\n') {
      return false;
   }
   std::string_view values[kNumKeys];
   std::string_view rest = text;
   const char *const *keys = kFileKeys;
   for (size_t i = 0; i < kNumKeys; i++) {
      size_t nl = rest.find('\n');
      if (nl == std::string_view::npos) {
         return false;
      }
      std::string_view line = rest.substr(0, nl);
      rest.remove_prefix(nl + 1);
      if (i == 3) {  // the Kind line (index 2) decides the remaining keys
         keys = values[2] == "bundle" ? kBundleKeys : kFileKeys;
      }
      size_t keyLen = strlen(keys[i]);
      if (line.size() < keyLen + 2 || line.substr(0, keyLen) != keys[i] ||
          line.substr(keyLen, 2) != ": ") {
         return false;
      }
      values[i] = line.substr(keyLen + 2);
   }
   if (!rest.empty() || values[0] != "1" || values[3] != "sha256" ||
       !IdentifierIsValid(values[1])) {
      return false;
   }
   CodeDirectory cd;
   cd.identifier = std::string(values[1]);
   if (values[2] == "file") {
      cd.kind = CodeKind::File;
      if (!ParseSize(values[4], &cd.contentSize) || !ParseHex(values[5], &cd.contentHash)) {
         return false;
      }
   } else if (values[2] == "bundle") {
      cd.kind = CodeKind::Bundle;
      if (!ParseHex(values[4], &cd.infoPlistHash) || !ParseHex(values[5], &cd.resourcesHash)) {
         return false;
      }
   } else {
      return false;
   }
   *out = std::move(cd);
   return true;
}

std::string FormatCodeDirectory(const CodeDirectory &cd) {
   std::string text = "CodeDirectory-Version: 1\nIdentifier: " + cd.identifier + "\n";
   if (cd.kind == CodeKind::File) {
      text += "Kind: file\nHash-Type: sha256\nContent-Size: " + std::to_string(cd.contentSize) +
              "\nContent-Hash: " + HexOf(cd.contentHash.data(), 32) + "\n";
   } else {
      text += "Kind: bundle\nHash-Type: sha256\nInfo-Plist-Hash: " +
              HexOf(cd.infoPlistHash.data(), 32) +
              "\nResources-Hash: " + HexOf(cd.resourcesHash.data(), 32) + "\n";
   }
   return text;
}

}  // namespace halcyx::codesign
