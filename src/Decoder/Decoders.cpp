#include <tessera/CMmalH264Decoder.h>
#include <tessera/DecoderPool.h>

#include <memory>

DecoderPool* GetDecoderPool() {
  return new DecoderPool();
}

int ReleaseDecoderPool(DecoderPool* pool) {
  if (pool == nullptr) return 0;
  delete pool;
  return 1;
}

int CreateH264Decoder(IH264Decoder** decoder) {
  if (decoder == nullptr) return 0;
  std::unique_ptr<IH264Decoder> made(new CMmalH264Decoder);
  if (!made->Initialize()) return 0;
  *decoder = made.release();
  return 1;
}

int FreeH264Decoder(IH264Decoder* decoder) {
  if (decoder == nullptr) return 0;
  delete decoder;
  return 1;
}
