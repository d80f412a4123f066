// The OpenMAX IL core: counted start and end, and the handles in between.

#include <IL/OMX_Component.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <vector>

#include "il/Component.h"
#include "il/ImageDecode.h"
#include "il/ImageEncode.h"
#include "il/Text.h"
#include "il/VideoEncode.h"

namespace {

namespace hooks = tessera_platform::hooks;
using hooks::CallScope;
using il::Component;

struct Maker {
  const il::Kind& kind;
  std::unique_ptr<Component> (*make)(const OMX_CALLBACKTYPE&, OMX_PTR);
};

template <typename Derived>
std::unique_ptr<Component> make(const OMX_CALLBACKTYPE& callbacks, OMX_PTR appData) {
  return std::make_unique<Derived>(callbacks, appData);
}

const Maker makers[] = {
    {il::ImageDecode::kind, make<il::ImageDecode>},
    {il::ImageEncode::kind, make<il::ImageEncode>},
    {il::VideoEncode::kind, make<il::VideoEncode>},
};

struct Core {
  std::mutex mutex;
  unsigned inits = 0;
  std::vector<std::unique_ptr<Component>> components;
};

/// Never destroyed: a process may end while components are still at work.
Core& core() {
  static Core* const instance = new Core;
  return *instance;
}

void end(std::unique_ptr<Component>& component) {
  component->stop();
  hooks::forget(component.get());
  component.reset();
}

OMX_ERRORTYPE init() {
  Core& c = core();
  const std::lock_guard<std::mutex> lock(c.mutex);
  ++c.inits;
  hooks::count(hooks::Kind::CoreInit, 1);
  return OMX_ErrorNone;
}

/// The last one takes along what nobody has freed.
OMX_ERRORTYPE deinit() {
  std::vector<std::unique_ptr<Component>> left;
  {
    Core& c = core();
    const std::lock_guard<std::mutex> lock(c.mutex);
    if (c.inits == 0) return OMX_ErrorNotReady;
    for (const auto& component : c.components)
      if (component->onWorker()) return OMX_ErrorIncorrectStateOperation;
    hooks::count(hooks::Kind::CoreInit, -1);
    if (--c.inits == 0) left.swap(c.components);
  }
  for (auto& component : left) end(component);
  return OMX_ErrorNone;
}

OMX_ERRORTYPE getHandle(OMX_HANDLETYPE* handle, const char* name, OMX_PTR appData,
                        const OMX_CALLBACKTYPE* callbacks) {
  if (handle == nullptr || name == nullptr || callbacks == nullptr) return OMX_ErrorBadParameter;
  Core& c = core();
  const std::lock_guard<std::mutex> lock(c.mutex);
  if (c.inits == 0) return OMX_ErrorNotReady;
  for (const Maker& maker : makers) {
    if (std::strcmp(maker.kind.name, name) != 0) continue;
    c.components.reserve(c.components.size() + 1);
    std::unique_ptr<Component> component = maker.make(*callbacks, appData);
    component->start();
    *handle = component->handle();
    c.components.push_back(std::move(component));
    return OMX_ErrorNone;
  }
  return OMX_ErrorComponentNotFound;
}

OMX_ERRORTYPE freeHandle(OMX_HANDLETYPE handle) {
  std::unique_ptr<Component> component;
  {
    Core& c = core();
    const std::lock_guard<std::mutex> lock(c.mutex);
    const auto found = std::find_if(c.components.begin(), c.components.end(),
                                    [&](const auto& each) { return each->handle() == handle; });
    if (found == c.components.end())
      return handle == nullptr ? OMX_ErrorBadParameter : OMX_ErrorInvalidComponent;
    // The worker cannot wait for its own end.
    if ((*found)->onWorker()) return OMX_ErrorIncorrectStateOperation;
    component = std::move(*found);
    c.components.erase(found);
  }
  end(component);
  return OMX_ErrorNone;
}

/// The name of a live handle, for the journal.
std::string nameOf(OMX_HANDLETYPE handle) {
  Core& c = core();
  const std::lock_guard<std::mutex> lock(c.mutex);
  for (const auto& component : c.components)
    if (component->handle() == handle) return component->name();
  return handle == nullptr ? "null" : "unknown handle";
}

/// One call of the core, journalled and open to faults.
template <typename Work, typename Telling>
OMX_ERRORTYPE call(const char* entry, Work work, Telling telling) {
  const CallScope scope(entry);
  if (scope.failed()) return scope.leave(scope.status<OMX_ERRORTYPE>(), telling, il::text::error);
  if (scope.nullResult()) return scope.leave(OMX_ErrorNone, telling, il::text::error);
  OMX_ERRORTYPE error;
  try {
    error = work();
  } catch (const std::bad_alloc&) {
    error = OMX_ErrorInsufficientResources;
  } catch (const std::system_error&) {  // no thread to be had
    error = OMX_ErrorInsufficientResources;
  }
  return scope.leave(error, telling, il::text::error);
}

std::string nothing() {
  return {};
}

const Maker* makerOf(const char* name) {
  for (const Maker& maker : makers)
    if (name != nullptr && std::strcmp(maker.kind.name, name) == 0) return &maker;
  return nullptr;
}

void copyName(const char* name, OMX_U8* target) {
  std::memcpy(target, name, std::strlen(name) + 1);
}

}  // namespace

OMX_ERRORTYPE OMX_Init(void) {
  return call("OMX_Init", init, nothing);
}

OMX_ERRORTYPE OMX_Deinit(void) {
  return call("OMX_Deinit", deinit, nothing);
}

OMX_ERRORTYPE OMX_GetHandle(OMX_HANDLETYPE* pHandle, OMX_STRING cComponentName, OMX_PTR pAppData,
                            OMX_CALLBACKTYPE* pCallBacks) {
  if (pHandle != nullptr) *pHandle = nullptr;
  return call(
      "OMX_GetHandle", [&] { return getHandle(pHandle, cComponentName, pAppData, pCallBacks); },
      [&] {
        const std::string name = cComponentName != nullptr ? cComponentName : "null";
        return name + (pHandle == nullptr ? "" : " -> " + nameOf(*pHandle));
      });
}

OMX_ERRORTYPE OMX_FreeHandle(OMX_HANDLETYPE hComponent) {
  std::string name;
  if (hooks::recording.load(std::memory_order_relaxed)) name = nameOf(hComponent);
  return call(
      "OMX_FreeHandle", [&] { return freeHandle(hComponent); }, [&] { return name; });
}

OMX_ERRORTYPE OMX_ComponentNameEnum(OMX_STRING cComponentName, OMX_U32 nNameLength,
                                    OMX_U32 nIndex) {
  const auto work = [&] {
    if (cComponentName == nullptr) return OMX_ErrorBadParameter;
    if (nIndex >= std::size(makers)) return OMX_ErrorNoMore;
    const std::string name = makers[nIndex].kind.name;
    if (nNameLength <= name.size()) return OMX_ErrorBadParameter;
    std::memcpy(cComponentName, name.c_str(), name.size() + 1);
    return OMX_ErrorNone;
  };
  return call("OMX_ComponentNameEnum", work, [&] { return std::to_string(nIndex); });
}

OMX_ERRORTYPE OMX_GetComponentsOfRole(OMX_STRING role, OMX_U32* pNumComps, OMX_U8** compNames) {
  const auto work = [&] {
    if (role == nullptr || pNumComps == nullptr) return OMX_ErrorBadParameter;
    const OMX_U32 room = compNames == nullptr ? 0 : *pNumComps;
    *pNumComps = 0;
    for (const Maker& maker : makers) {
      if (std::strcmp(maker.kind.role, role) != 0) continue;
      if (*pNumComps < room) copyName(maker.kind.name, compNames[*pNumComps]);
      ++*pNumComps;
    }
    return OMX_ErrorNone;
  };
  return call("OMX_GetComponentsOfRole", work,
              [&] { return std::string(role != nullptr ? role : "null"); });
}

OMX_ERRORTYPE OMX_GetRolesOfComponent(OMX_STRING compName, OMX_U32* pNumRoles, OMX_U8** roles) {
  const auto work = [&] {
    if (compName == nullptr || pNumRoles == nullptr) return OMX_ErrorBadParameter;
    const Maker* const maker = makerOf(compName);
    if (maker == nullptr) return OMX_ErrorComponentNotFound;
    if (roles != nullptr && *pNumRoles > 0) copyName(maker->kind.role, roles[0]);
    *pNumRoles = 1;
    return OMX_ErrorNone;
  };
  return call("OMX_GetRolesOfComponent", work,
              [&] { return std::string(compName != nullptr ? compName : "null"); });
}

OMX_ERRORTYPE OMX_SetupTunnel(OMX_HANDLETYPE, OMX_U32, OMX_HANDLETYPE, OMX_U32) {
  return call(
      "OMX_SetupTunnel", [] { return OMX_ErrorTunnelingUnsupported; }, nothing);
}
