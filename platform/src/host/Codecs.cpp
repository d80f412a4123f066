#include "tessera_platform/codecs.h"

#include <cstring>

#include "codec/Report.h"

char* tessera_platform_codecs() {
  return strdup(codec::codecReport().c_str());
}
