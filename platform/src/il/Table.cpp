// The function table of a component: one call scope around each operation.

#include <new>
#include <system_error>

#include "il/Component.h"
#include "il/Text.h"

namespace il {
namespace {

using tessera_platform::hooks::CallScope;
using tessera_platform::hooks::recording;

/// One operation on a component, journalled and open to faults. The arguments are told before the
/// work is done: it may end the life of what they point to.
/// @param telling  gives the arguments as text
/// @param nullify  clears the result, for the fault that answers success without one
template <typename Work, typename Telling, typename Nullify>
OMX_ERRORTYPE call(const char* entry, OMX_HANDLETYPE handle, Work work, Telling telling,
                   Nullify nullify) {
  const CallScope scope(entry);
  if (handle == nullptr) return OMX_ErrorBadParameter;
  Component& component = Component::of(handle);
  std::string arguments;
  if (recording.load(std::memory_order_relaxed)) arguments = telling(component);
  OMX_ERRORTYPE error = OMX_ErrorNone;
  if (scope.failed()) {
    error = scope.status<OMX_ERRORTYPE>();
  } else if (scope.nullResult()) {
    nullify();
  } else {
    try {
      error = work(component);
    } catch (const std::bad_alloc&) {
      error = OMX_ErrorInsufficientResources;
    } catch (const std::system_error&) {
      error = OMX_ErrorUndefined;
    }
    if (scope.finishFirst()) component.settle();
  }
  return scope.leave(
      error, [&] { return arguments; }, text::error);
}

template <typename Work, typename Telling>
OMX_ERRORTYPE call(const char* entry, OMX_HANDLETYPE handle, Work work, Telling telling) {
  return call(entry, handle, work, telling, [] {});
}

std::string nameOf(const Component& component) {
  return component.name();
}

OMX_ERRORTYPE getComponentVersion(OMX_HANDLETYPE handle, OMX_STRING name, OMX_VERSIONTYPE* version,
                                  OMX_VERSIONTYPE* standard, OMX_UUIDTYPE* uuid) {
  const auto work = [&](Component& component) {
    if (name == nullptr || version == nullptr || standard == nullptr) return OMX_ErrorBadParameter;
    const std::string own = component.kind().name;
    own.copy(name, OMX_MAX_STRINGNAME_SIZE - 1);
    name[own.size()] = '\0';
    version->nVersion = standard->nVersion = OMX_VERSION;
    if (uuid != nullptr) std::fill(*uuid, *uuid + sizeof *uuid, static_cast<unsigned char>(0));
    return OMX_ErrorNone;
  };
  return call("OMX_GetComponentVersion", handle, work, nameOf);
}

OMX_ERRORTYPE sendCommand(OMX_HANDLETYPE handle, OMX_COMMANDTYPE command, OMX_U32 parameter,
                          OMX_PTR) {
  return call(
      "OMX_SendCommand", handle, [&](Component& c) { return c.sendCommand(command, parameter); },
      [&](Component& c) { return c.name() + ", " + text::command(command, parameter); });
}

OMX_ERRORTYPE getParameter(OMX_HANDLETYPE handle, OMX_INDEXTYPE index, OMX_PTR structure) {
  return call(
      "OMX_GetParameter", handle, [&](Component& c) { return c.getParameter(index, structure); },
      [&](Component& c) { return c.name() + ", " + text::query(index, structure); });
}

OMX_ERRORTYPE setParameter(OMX_HANDLETYPE handle, OMX_INDEXTYPE index, OMX_PTR structure) {
  return call(
      "OMX_SetParameter", handle, [&](Component& c) { return c.setParameter(index, structure); },
      [&](Component& c) { return c.name() + ", " + text::parameter(index, structure); });
}

OMX_ERRORTYPE getConfig(OMX_HANDLETYPE handle, OMX_INDEXTYPE index, OMX_PTR) {
  return call(
      "OMX_GetConfig", handle, [](Component&) { return OMX_ErrorUnsupportedIndex; },
      [&](Component& c) { return c.name() + ", " + text::index(index); });
}

OMX_ERRORTYPE setConfig(OMX_HANDLETYPE handle, OMX_INDEXTYPE index, OMX_PTR structure) {
  return call(
      "OMX_SetConfig", handle, [&](Component& c) { return c.setConfig(index, structure); },
      [&](Component& c) { return c.name() + ", " + text::index(index); });
}

OMX_ERRORTYPE getExtensionIndex(OMX_HANDLETYPE handle, OMX_STRING, OMX_INDEXTYPE*) {
  return call(
      "OMX_GetExtensionIndex", handle, [](Component&) { return OMX_ErrorUnsupportedIndex; },
      nameOf);
}

OMX_ERRORTYPE getState(OMX_HANDLETYPE handle, OMX_STATETYPE* state) {
  return call(
      "OMX_GetState", handle, [&](Component& c) { return c.getState(state); }, nameOf,
      [&] {
        if (state != nullptr) *state = OMX_StateInvalid;
      });
}

OMX_ERRORTYPE tunnelRequest(OMX_HANDLETYPE handle, OMX_U32, OMX_HANDLETYPE, OMX_U32,
                            OMX_TUNNELSETUPTYPE*) {
  return call(
      "OMX_ComponentTunnelRequest", handle,
      [](Component&) { return OMX_ErrorTunnelingUnsupported; }, nameOf);
}

/// @param memory  of the client; null for a buffer that the component makes
OMX_ERRORTYPE addBuffer(const char* entry, bool own, OMX_HANDLETYPE handle,
                        OMX_BUFFERHEADERTYPE** header, OMX_U32 port, OMX_PTR appPrivate,
                        OMX_U32 size, OMX_U8* memory) {
  return call(
      entry, handle,
      [&](Component& c) {
        if (own && memory == nullptr) return OMX_ErrorBadParameter;
        return c.addBuffer(header, port, appPrivate, size, memory);
      },
      [&](Component& c) { return c.name(port) + ", " + std::to_string(size) + " bytes"; },
      [&] {
        if (header != nullptr) *header = nullptr;
      });
}

OMX_ERRORTYPE useBuffer(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE** header, OMX_U32 port,
                        OMX_PTR appPrivate, OMX_U32 size, OMX_U8* memory) {
  return addBuffer("OMX_UseBuffer", true, handle, header, port, appPrivate, size, memory);
}

OMX_ERRORTYPE allocateBuffer(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE** header, OMX_U32 port,
                             OMX_PTR appPrivate, OMX_U32 size) {
  return addBuffer("OMX_AllocateBuffer", false, handle, header, port, appPrivate, size, nullptr);
}

OMX_ERRORTYPE freeBuffer(OMX_HANDLETYPE handle, OMX_U32 port, OMX_BUFFERHEADERTYPE* header) {
  return call(
      "OMX_FreeBuffer", handle, [&](Component& c) { return c.freeBuffer(port, header); },
      [&](Component& c) { return c.name(port); });
}

OMX_ERRORTYPE emptyThisBuffer(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE* header) {
  return call(
      "OMX_EmptyThisBuffer", handle, [&](Component& c) { return c.submit(OMX_DirInput, header); },
      [&](Component& c) {
        const std::string name = c.nameOfPortOf(header);
        return header == nullptr
                   ? name
                   : name + ", " + std::to_string(header->nFilledLen) + " bytes" +
                         text::flags(header->nFlags) + text::timestamp(header->nTimeStamp);
      });
}

OMX_ERRORTYPE fillThisBuffer(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE* header) {
  return call(
      "OMX_FillThisBuffer", handle, [&](Component& c) { return c.submit(OMX_DirOutput, header); },
      [&](Component& c) {
        const std::string name = c.nameOfPortOf(header);
        // What the client has left in it.
        return header == nullptr || (header->nFilledLen | header->nFlags) == 0
                   ? name
                   : name + ", " + std::to_string(header->nFilledLen) + " bytes" +
                         text::flags(header->nFlags);
      });
}

OMX_ERRORTYPE setCallbacks(OMX_HANDLETYPE handle, OMX_CALLBACKTYPE* callbacks, OMX_PTR appData) {
  const auto work = [&](Component& c) {
    return callbacks == nullptr ? OMX_ErrorBadParameter : c.setCallbacks(*callbacks, appData);
  };
  return call("OMX_SetCallbacks", handle, work, nameOf);
}

/// The core alone ends a component.
OMX_ERRORTYPE componentDeInit(OMX_HANDLETYPE handle) {
  return call(
      "OMX_ComponentDeInit", handle, [](Component&) { return OMX_ErrorNotImplemented; }, nameOf);
}

OMX_ERRORTYPE useEGLImage(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE**, OMX_U32, OMX_PTR, void*) {
  return call(
      "OMX_UseEGLImage", handle, [](Component&) { return OMX_ErrorNotImplemented; }, nameOf);
}

OMX_ERRORTYPE componentRoleEnum(OMX_HANDLETYPE handle, OMX_U8* role, OMX_U32 index) {
  const auto work = [&](Component& component) {
    if (role == nullptr) return OMX_ErrorBadParameter;
    if (index > 0) return OMX_ErrorNoMore;
    const std::string own = component.kind().role;
    std::copy(own.c_str(), own.c_str() + own.size() + 1, role);
    return OMX_ErrorNone;
  };
  return call("OMX_ComponentRoleEnum", handle, work, nameOf);
}

}  // namespace

void fillTable(OMX_COMPONENTTYPE& table) {
  stamp(table);
  table.GetComponentVersion = getComponentVersion;
  table.SendCommand = sendCommand;
  table.GetParameter = getParameter;
  table.SetParameter = setParameter;
  table.GetConfig = getConfig;
  table.SetConfig = setConfig;
  table.GetExtensionIndex = getExtensionIndex;
  table.GetState = getState;
  table.ComponentTunnelRequest = tunnelRequest;
  table.UseBuffer = useBuffer;
  table.AllocateBuffer = allocateBuffer;
  table.FreeBuffer = freeBuffer;
  table.EmptyThisBuffer = emptyThisBuffer;
  table.FillThisBuffer = fillThisBuffer;
  table.SetCallbacks = setCallbacks;
  table.ComponentDeInit = componentDeInit;
  table.UseEGLImage = useEGLImage;
  table.ComponentRoleEnum = componentRoleEnum;
}

}  // namespace il
