#ifndef TESSERA_SRC_COMMON_OMXSTRUCTURE_H
#define TESSERA_SRC_COMMON_OMXSTRUCTURE_H

#include <IL/OMX_Component.h>

namespace common {

/// A state as the standard writes it ("OMX_StateIdle"), or null for another value.
inline const char* OmxStateName(OMX_U32 state) {
  constexpr const char* names[] = {"OMX_StateInvalid", "OMX_StateLoaded",
                                   "OMX_StateIdle",    "OMX_StateExecuting",
                                   "OMX_StatePause",   "OMX_StateWaitForResources"};
  return state < sizeof names / sizeof *names ? names[state] : nullptr;
}

/// Fills in what every OpenMAX IL structure starts with; the rest stays as it is.
template <typename Structure>
void FillOmxHeader(Structure& structure) {
  structure.nSize = sizeof(Structure);
  structure.nVersion.nVersion = 0;
  structure.nVersion.s.nVersionMajor = 1;
  structure.nVersion.s.nVersionMinor = 1;
  structure.nVersion.s.nRevision = 2;
  structure.nVersion.s.nStep = 0;
}

/// A structure with its header filled in and zero everywhere else.
template <typename Structure>
Structure MakeOmxStructure() {
  Structure structure{};
  FillOmxHeader(structure);
  return structure;
}

/// Likewise one that names its port.
template <typename Structure>
Structure MakeOmxStructure(OMX_U32 port) {
  auto structure = MakeOmxStructure<Structure>();
  structure.nPortIndex = port;
  return structure;
}

}  // namespace common

#endif  // TESSERA_SRC_COMMON_OMXSTRUCTURE_H
