// SPDX-License-Identifier: LGPL-2.1-or-later
// Writes a file for tests/codec/lzo1xportable.cpp: inputs, what liblzo2 makes of them, and what our
// encoder makes of them on this machine.
#include "codec/lzo1x/lzo1x.h"
#include "tests/codec/lzo1xsamples.h"

#include <lzo/lzo1x.h>

#include <cstdio>
#include <cstdlib>

namespace
{

Bytes
byPeer(const Bytes &content, bool best)
{
  Bytes out(content.size() + content.size() / 16 + 67);
  Bytes work(best ? LZO1X_999_MEM_COMPRESS : LZO1X_1_MEM_COMPRESS);
  lzo_uint size = out.size();
  const auto compress = best ? lzo1x_999_compress : lzo1x_1_compress;
  if (compress(content.data(), content.size(), out.data(), &size, work.data()) != LZO_E_OK)
    std::abort();
  out.resize(size);
  return out;
}

void
put(std::FILE *file, const Bytes &bytes)
{
  const auto size = static_cast<std::uint32_t>(bytes.size());
  for (unsigned shift = 0; shift < 32; shift += 8)
    std::fputc(static_cast<int>(size >> shift & 0xff), file);
  std::fwrite(bytes.data(), 1, bytes.size(), file);
}

} // namespace

int
main(int argc, char **argv)
{
  std::FILE *const file = argc == 2 ? std::fopen(argv[1], "wb") : nullptr;
  if (file == nullptr) {
    std::fprintf(stderr, "usage: lzo1xgolden FILE\n");
    return 2;
  }
  Random random(1);
  for (const std::size_t size : {1, 20, 21, 64, 300, 1000, 4096, 20000, 65536, 200000})
    for (const auto generator : generators) {
      const Bytes content = generator(random, size);
      put(file, content);
      put(file, byPeer(content, false));
      put(file, byPeer(content, true));
      put(file, encoded(content));
    }
  return std::fclose(file) == 0 ? 0 : 1;
}
