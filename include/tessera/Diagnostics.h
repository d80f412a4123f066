#ifndef TESSERA_DIAGNOSTICS_H
#define TESSERA_DIAGNOSTICS_H

#include <IL/OMX_Component.h>
#include <tessera/Export.h>

/// @file
/// OpenMAX IL error texts, diagnostic printers, and the decoder pool's side of the component's
/// callbacks. Applications need none of it to decode; it is here for those who drive an OpenMAX IL
/// component of their own, or look into one. No function here waits for a component.

/// The callbacks that every DecoderPool registers: `EventHandler`, and the handlers of returned
/// input and output buffers. Never changes.
extern TESSERA_API OMX_CALLBACKTYPE videodeccallbacks;

/// Takes an event of the decoder pool's component; the platform calls it from its own thread.
///
/// - Command complete: one line for a change of state; ends one wait of the pool.
/// - Port settings changed: tells `DecodeJpeg` that the picture has another size.
/// - Buffer flag: nothing.
/// - Error: one line, and **the process ends by `_Exit(1)`**: of the streams only standard output
///   is flushed.
/// - Any other: "unhandled event" with both data values, without a line end.
///
/// All of it goes to standard output.
/// @param hComponent    not read
/// @param pAppData      the DecoderPool; null: nothing happens
/// @param eEvent        what happened
/// @param nData1,nData2 of the event: command and state, or the error's code
/// @param pEventData    not read
/// @return OMX_ErrorNone, always
TESSERA_API OMX_ERRORTYPE EventHandler(OMX_HANDLETYPE hComponent, OMX_PTR pAppData,
                                       OMX_EVENTTYPE eEvent, OMX_U32 nData1, OMX_U32 nData2,
                                       OMX_PTR pEventData);

/// A sentence for an OpenMAX IL status: "The component is in invalid state". These are the texts of
/// the decoder pool's messages.
/// @param code  the status
/// @return a string that lives for good; "Unknown error" for codes outside OpenMAX IL 1.1.2
TESSERA_API const char* OmxErrorDescription(OMX_ERRORTYPE code);

/// Prints the state of any OpenMAX IL component as a line on standard output ("StateIdle").
///
/// When the component does not tell its state, **the process ends by `exit(1)`** after a line on
/// standard error: meant for a developer's own programs, the library never calls it.
/// @param hComponent  the component's handle, not null
TESSERA_API void printState(OMX_HANDLETYPE hComponent);

/// Prints a port definition as 21 lines on standard output. The picture's fields are read through
/// the image view of the format; pointers come out as their low 32 bits.
/// @param portDef  the definition, only read
/// @return the number of characters, or a negative value when standard output cannot be written
TESSERA_API int DumpPortDefs(OMX_PARAM_PORTDEFINITIONTYPE* portDef);

/// Writes a failed OpenMAX IL call as one line to standard error, whole and at once:
/// "COmxJpegEncoder::Encode - signal new input buffer - 0x80001005:one or more parameters were not
/// valid". Codes without a text of their own read "(no description).".
/// @param label  where it happened, not null
/// @param error  the call's status
TESSERA_API void PrintOmxError(const char* label, OMX_ERRORTYPE error);

#endif  // TESSERA_DIAGNOSTICS_H
