// SPDX-License-Identifier: MIT
// Fuzzes the privileged service's frame decoder: the input arrives in
// pieces (the first byte sets their size) and every whole frame's payload is
// decoded; a dictionary is encoded again and must come back as the same
// frame header.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "serviceInt.h"

using namespace halcyx::service;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size < 1 || size > 256 * 1024) {
      return 0;
   }
   const size_t piece = data[0] ? data[0] : 1;
   data++;
   size--;
   FrameReader reader;
   for (size_t off = 0; off < size;) {
      const size_t n = size - off < piece ? size - off : piece;
      reader.Append(data + off, n);
      off += n;
      FrameHeader header;
      std::string_view payload;
      FrameReader::Result r;
      while ((r = reader.Next(&header, &payload)) == FrameReader::Frame) {
         if (header.length != payload.size() || header.length > kMaxPayload) {
            abort();
         }
         halcyx::codesign::UniquePlist root =
            DecodePayload(reinterpret_cast<const uint8_t *>(payload.data()), payload.size());
         std::string again;
         FrameHeader back;
         if (root && PLIST_IS_DICT(static_cast<plist_t>(root.get())) &&
             (!EncodeFrame(header.type, header.serial, static_cast<plist_t>(root.get()), &again) ||
              !DecodeHeader(reinterpret_cast<const uint8_t *>(again.data()), &back) ||
              back.type != header.type || back.serial != header.serial ||
              back.length + kHeaderSize != again.size())) {
            abort();
         }
      }
      if (r == FrameReader::Bad) {
         return 0;
      }
   }
   return 0;
}
