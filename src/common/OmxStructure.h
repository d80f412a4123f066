#ifndef TESSERA_SRC_COMMON_OMXSTRUCTURE_H
#define TESSERA_SRC_COMMON_OMXSTRUCTURE_H

#include <IL/OMX_Component.h>

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

#endif  // TESSERA_SRC_COMMON_OMXSTRUCTURE_H
