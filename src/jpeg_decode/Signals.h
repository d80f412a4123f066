#ifndef TESSERA_SRC_JPEG_DECODE_SIGNALS_H
#define TESSERA_SRC_JPEG_DECODE_SIGNALS_H

#include <tessera/DecoderPool.h>

/// What the component's callbacks may do with a pool.
struct DecoderPoolSignals {
  static void commandDone(DecoderPool& pool) { sem_post(&pool.semCommandDone); }
  static void loaded(DecoderPool& pool) { sem_post(&pool.semLoaded); }
  static void fillDone(DecoderPool& pool) { sem_post(&pool.semFillDone); }
  static void portSettingsChanged(DecoderPool& pool) { sem_post(&pool.semPortSettingsChanged); }
};

#endif  // TESSERA_SRC_JPEG_DECODE_SIGNALS_H
