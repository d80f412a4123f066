#ifndef TESSERA_PLATFORM_SRC_IL_TEXT_H
#define TESSERA_PLATFORM_SRC_IL_TEXT_H

#include <IL/OMX_Component.h>

#include <string>

/// Words for the journal: the published names without their prefix.
namespace il::text {

std::string error(OMX_ERRORTYPE code);  ///< "None", "BadParameter", or the code in hexadecimal
std::string state(OMX_U32 state);       ///< "Idle"
std::string index(OMX_INDEXTYPE index);
std::string flags(OMX_U32 flags);        ///< " EOS ENDOFFRAME", each with a blank before it
std::string timestamp(OMX_TICKS ticks);  ///< " at 40000"; nothing for 0

/// "StateSet Idle", "PortDisable 320", "Flush all".
std::string command(OMX_COMMANDTYPE command, OMX_U32 parameter);

/// "CmdComplete PortDisable 320", "Error SameState", "PortSettingsChanged 321".
std::string event(OMX_EVENTTYPE event, OMX_U32 data1, OMX_U32 data2);

/// A parameter on its way to the component, with its port and the members that tell:
/// "QFactor 341: 75". One that is asked for: "PortDefinition 341".
std::string parameter(OMX_INDEXTYPE index, const void* structure);
std::string query(OMX_INDEXTYPE index, const void* structure);

}  // namespace il::text

#endif  // TESSERA_PLATFORM_SRC_IL_TEXT_H
