// The client's half of a component: what happens inside its calls.

#include "il/Component.h"

#include <algorithm>
#include <cstring>

#include "il/Text.h"

namespace il {
namespace {

using tessera_platform::hooks::nameOf;

/// The domain that one of the four port queries asks for.
bool domainOf(OMX_INDEXTYPE index, OMX_PORTDOMAINTYPE& domain) {
  switch (index) {
    case OMX_IndexParamAudioInit:
      domain = OMX_PortDomainAudio;
      return true;
    case OMX_IndexParamVideoInit:
      domain = OMX_PortDomainVideo;
      return true;
    case OMX_IndexParamImageInit:
      domain = OMX_PortDomainImage;
      return true;
    case OMX_IndexParamOtherInit:
      domain = OMX_PortDomainOther;
      return true;
    default:
      return false;
  }
}

/// Enough for any run of commands, so that sending one allocates nothing; and for what the worker
/// may raise between two looks at its events.
constexpr std::size_t usualCommands = 16;

template <typename Item>
void keepRoom(std::vector<Item>& items, std::size_t room) {
  if (items.capacity() - items.size() < room) items.reserve(2 * (items.size() + room));
}

}  // namespace

Component::Component(const Kind& kind, const OMX_CALLBACKTYPE& callbacks, OMX_PTR appData,
                     std::vector<Port> ports)
    : kind_(kind), callbacks_(callbacks), ports_(std::move(ports)) {
  fillTable(table_);
  table_.pComponentPrivate = this;
  table_.pApplicationPrivate = appData;
  makeRoom(usualCommands);
}

/// Room for so many more commands and for an event of each, before any of them is taken.
void Component::makeRoom(std::size_t commands) {
  keepRoom(commands_, commands);
  keepRoom(events_, commands_.size() + commands + usualCommands);
}

Component& Component::of(OMX_HANDLETYPE handle) {
  return *static_cast<Component*>(static_cast<OMX_COMPONENTTYPE*>(handle)->pComponentPrivate);
}

std::string Component::name() const {
  return nameOf(this, kind_.shortName);
}

std::string Component::name(OMX_U32 port) const {
  return name() + ':' + std::to_string(port);
}

std::string Component::nameOfPortOf(const OMX_BUFFERHEADERTYPE* header) const {
  const Lock lock(mutex_);
  for (const Port& port : ports_)
    if (port.find(header) != nullptr) return name(port.definition.nPortIndex);
  return name() + ", unknown buffer";
}

const Port* Component::find(OMX_U32 index) const {
  for (const Port& port : ports_)
    if (port.definition.nPortIndex == index) return &port;
  return nullptr;
}

Port* Component::find(OMX_U32 index) {
  return const_cast<Port*>(std::as_const(*this).find(index));
}

bool Component::commanded(OMX_COMMANDTYPE kind, OMX_U32 parameter) const {
  return std::any_of(commands_.begin(), commands_.end(), [&](const Command& command) {
    return command.kind == kind && command.parameter == parameter;
  });
}

OMX_ERRORTYPE Component::sendCommand(OMX_COMMANDTYPE command, OMX_U32 parameter) {
  Lock lock(mutex_);
  if (state_ == OMX_StateInvalid) return OMX_ErrorInvalidState;
  makeRoom(ports_.size());
  switch (command) {
    case OMX_CommandStateSet:
      commands_.push_back({command, parameter});
      break;
    case OMX_CommandFlush:
    case OMX_CommandPortDisable:
    case OMX_CommandPortEnable:
      if (parameter != OMX_ALL && find(parameter) == nullptr) return OMX_ErrorBadPortIndex;
      for (Port& port : ports_) {
        if (parameter != OMX_ALL && parameter != port.definition.nPortIndex) continue;
        if (command != OMX_CommandFlush)
          port.definition.bEnabled = command == OMX_CommandPortEnable ? OMX_TRUE : OMX_FALSE;
        commands_.push_back({command, port.definition.nPortIndex});
        // There is nothing to it but to wait for buffers.
        commands_.back().begun = command == OMX_CommandPortEnable && !blocked(commands_.size() - 1);
      }
      break;
    case OMX_CommandMarkBuffer:
      return OMX_ErrorNotImplemented;
    default:
      return OMX_ErrorBadParameter;
  }
  callWorker(lock);
  return OMX_ErrorNone;
}

OMX_ERRORTYPE Component::getState(OMX_STATETYPE* state) {
  if (state == nullptr) return OMX_ErrorBadParameter;
  const Lock lock(mutex_);
  *state = state_;
  return OMX_ErrorNone;
}

OMX_ERRORTYPE Component::setCallbacks(const OMX_CALLBACKTYPE& callbacks, OMX_PTR appData) {
  const Lock lock(mutex_);
  if (state_ != OMX_StateLoaded) return OMX_ErrorIncorrectStateOperation;
  callbacks_ = callbacks;
  table_.pApplicationPrivate = appData;
  return OMX_ErrorNone;
}

// ------------------------------------------------------------------------------- parameters

OMX_ERRORTYPE Component::getPorts(OMX_PORTDOMAINTYPE domain, OMX_PTR structure) const {
  auto& range = *static_cast<OMX_PORT_PARAM_TYPE*>(structure);
  if (range.nSize != sizeof range || range.nVersion.nVersion != OMX_VERSION)
    return OMX_ErrorVersionMismatch;
  const bool ours = ports_.front().definition.eDomain == domain;
  range.nPorts = ours ? static_cast<OMX_U32>(ports_.size()) : 0;
  range.nStartPortNumber = ours ? ports_.front().definition.nPortIndex : 0;
  return OMX_ErrorNone;
}

template <typename Structure>
OMX_ERRORTYPE Component::getPortFormat(OMX_PTR structure) const {
  const OMX_ERRORTYPE error = check<Structure>(structure);
  if (error != OMX_ErrorNone) return error;
  auto& wanted = *static_cast<Structure*>(structure);
  const std::vector<Format>& formats = find(wanted.nPortIndex)->formats;
  if (wanted.nIndex >= formats.size()) return OMX_ErrorNoMore;
  wanted.eCompressionFormat =
      static_cast<decltype(wanted.eCompressionFormat)>(formats[wanted.nIndex].coding);
  wanted.eColorFormat = formats[wanted.nIndex].colour;
  return OMX_ErrorNone;
}

template <typename Structure>
OMX_ERRORTYPE Component::setPortFormat(OMX_PTR structure) {
  const OMX_ERRORTYPE error = check<Structure>(structure);
  if (error != OMX_ErrorNone) return error;
  const auto& wanted = *static_cast<Structure*>(structure);
  Port& port = *find(wanted.nPortIndex);
  OMX_PARAM_PORTDEFINITIONTYPE definition = port.definition;
  setFormat(definition, {static_cast<OMX_U32>(wanted.eCompressionFormat), wanted.eColorFormat});
  if constexpr (std::is_same_v<Structure, OMX_VIDEO_PARAM_PORTFORMATTYPE>)
    if (wanted.xFramerate != 0) definition.format.video.xFramerate = wanted.xFramerate;
  return redefine(port, definition);
}

OMX_ERRORTYPE Component::getParameter(OMX_INDEXTYPE index, OMX_PTR structure) {
  if (structure == nullptr) return OMX_ErrorBadParameter;
  const Lock lock(mutex_);
  if (state_ == OMX_StateInvalid) return OMX_ErrorInvalidState;
  const bool video = ports_.front().definition.eDomain == OMX_PortDomainVideo;
  OMX_PORTDOMAINTYPE domain;
  if (domainOf(index, domain)) return getPorts(domain, structure);
  if (index == OMX_IndexParamPortDefinition) {
    const OMX_ERRORTYPE error = check<OMX_PARAM_PORTDEFINITIONTYPE>(structure);
    if (error != OMX_ErrorNone) return error;
    auto& definition = *static_cast<OMX_PARAM_PORTDEFINITIONTYPE*>(structure);
    definition = find(definition.nPortIndex)->definition;
    return OMX_ErrorNone;
  }
  if (index == OMX_IndexParamImagePortFormat && !video)
    return getPortFormat<OMX_IMAGE_PARAM_PORTFORMATTYPE>(structure);
  if (index == OMX_IndexParamVideoPortFormat && video)
    return getPortFormat<OMX_VIDEO_PARAM_PORTFORMATTYPE>(structure);
  if (index == OMX_IndexParamStandardComponentRole) {
    auto& role = *static_cast<OMX_PARAM_COMPONENTROLETYPE*>(structure);
    if (role.nSize != sizeof role || role.nVersion.nVersion != OMX_VERSION)
      return OMX_ErrorVersionMismatch;
    std::memcpy(role.cRole, kind_.role, std::strlen(kind_.role) + 1);
    return OMX_ErrorNone;
  }
  return getOwnParameter(index, structure);
}

OMX_ERRORTYPE Component::setParameter(OMX_INDEXTYPE index, OMX_PTR structure) {
  if (structure == nullptr) return OMX_ErrorBadParameter;
  const Lock lock(mutex_);
  if (state_ == OMX_StateInvalid) return OMX_ErrorInvalidState;
  const bool video = ports_.front().definition.eDomain == OMX_PortDomainVideo;
  if (index == OMX_IndexParamPortDefinition) {
    const OMX_ERRORTYPE error = check<OMX_PARAM_PORTDEFINITIONTYPE>(structure);
    if (error != OMX_ErrorNone) return error;
    const auto& definition = *static_cast<OMX_PARAM_PORTDEFINITIONTYPE*>(structure);
    return redefine(*find(definition.nPortIndex), definition);
  }
  if (index == OMX_IndexParamImagePortFormat && !video)
    return setPortFormat<OMX_IMAGE_PARAM_PORTFORMATTYPE>(structure);
  if (index == OMX_IndexParamVideoPortFormat && video)
    return setPortFormat<OMX_VIDEO_PARAM_PORTFORMATTYPE>(structure);
  return setOwnParameter(index, structure);
}

OMX_ERRORTYPE Component::setConfig(OMX_INDEXTYPE index, OMX_PTR structure) {
  if (structure == nullptr) return OMX_ErrorBadParameter;
  // A configuration may change at any time; the parameters of the same kind have no such index.
  if (index != OMX_IndexConfigVideoIntraVOPRefresh) return OMX_ErrorUnsupportedIndex;
  const Lock lock(mutex_);
  if (state_ == OMX_StateInvalid) return OMX_ErrorInvalidState;
  return setOwnParameter(index, structure);
}

OMX_ERRORTYPE Component::getOwnParameter(OMX_INDEXTYPE, OMX_PTR) {
  return OMX_ErrorUnsupportedIndex;
}

OMX_ERRORTYPE Component::setOwnParameter(OMX_INDEXTYPE, OMX_PTR) {
  return OMX_ErrorUnsupportedIndex;
}

/// A port changes while it is disabled or the component is not yet Idle, and has no buffers.
OMX_ERRORTYPE Component::redefine(Port& port, OMX_PARAM_PORTDEFINITIONTYPE wanted) {
  if ((port.enabled() && !loaded()) || !port.buffers.empty())
    return OMX_ErrorIncorrectStateOperation;
  const OMX_PARAM_PORTDEFINITIONTYPE& current = port.definition;
  wanted.eDir = current.eDir;
  wanted.eDomain = current.eDomain;
  wanted.bEnabled = current.bEnabled;
  wanted.bPopulated = current.bPopulated;
  wanted.nBufferCountMin = current.nBufferCountMin;
  wanted.nBufferCountActual = std::max(wanted.nBufferCountActual, current.nBufferCountMin);
  wanted.bBuffersContiguous = current.bBuffersContiguous;
  wanted.nBufferAlignment = current.nBufferAlignment;
  if (!port.supports(formatOf(wanted))) return OMX_ErrorUnsupportedSetting;
  const OMX_ERRORTYPE error = adapt(port, wanted);
  if (error == OMX_ErrorNone) port.definition = wanted;
  return error;
}

// ---------------------------------------------------------------------------------- buffers

/// Buffers come on the way to Idle, or while the port is on its way to being enabled.
bool Component::mayAddTo(const Port& port) const {
  const OMX_U32 index = port.definition.nPortIndex;
  if (!port.enabled() || commanded(OMX_CommandPortDisable, index)) return false;
  if (loaded()) return commanded(OMX_CommandStateSet, OMX_StateIdle);
  return commanded(OMX_CommandPortEnable, index);
}

OMX_ERRORTYPE Component::addBuffer(OMX_BUFFERHEADERTYPE** header, OMX_U32 portIndex,
                                   OMX_PTR appPrivate, OMX_U32 size, OMX_U8* memory) {
  if (header == nullptr) return OMX_ErrorBadParameter;
  Lock lock(mutex_);
  if (state_ == OMX_StateInvalid) return OMX_ErrorInvalidState;
  Port* const port = find(portIndex);
  if (port == nullptr) return OMX_ErrorBadPortIndex;
  if (!mayAddTo(*port)) return OMX_ErrorIncorrectStateOperation;
  if (size < port->definition.nBufferSize) return OMX_ErrorBadParameter;
  if (port->populated()) return OMX_ErrorInsufficientResources;
  auto buffer = std::make_unique<Buffer>(portIndex, port->isInput(), size, memory, appPrivate,
                                         memory == nullptr ? port->memoryFor(size) : Memory());
  port->queue.reserve(port->definition.nBufferCountActual);
  port->buffers.push_back(std::move(buffer));
  *header = &port->buffers.back()->header;
  if (port->populated()) {
    port->definition.bPopulated = OMX_TRUE;
    callWorker(lock);
  }
  return OMX_ErrorNone;
}

/// Whether nothing of the worker still points to a buffer, and none of its callbacks is to come.
bool Component::isFree(const Port& port, const Buffer& buffer) const {
  if (delivering_ == &buffer) return false;
  if (buffer.place == Buffer::Place::Client) return true;
  // A command on its way hands the buffer back properly.
  const OMX_U32 index = port.definition.nPortIndex;
  for (std::size_t i = 0; i < commands_.size(); ++i)
    if (!commands_[i].begun && !blocked(i) &&
        (commands_[i].kind == OMX_CommandStateSet || commands_[i].parameter == index))
      return stopping_;
  return buffer.place != Buffer::Place::Working || bell_.asleep();
}

OMX_ERRORTYPE Component::freeBuffer(OMX_U32 portIndex, OMX_BUFFERHEADERTYPE* header) {
  Lock lock(mutex_);
  Port* const port = find(portIndex);
  if (port == nullptr) return OMX_ErrorBadPortIndex;
  Buffer* const buffer = port->find(header);
  if (buffer == nullptr) return OMX_ErrorBadParameter;
  if (!onWorker()) {
    changed_.wait(lock, [&] { return isFree(*port, *buffer); });
  } else if (buffer->place == Buffer::Place::Working) {
    return OMX_ErrorIncorrectStateOperation;
  }
  makeRoom(0);
  const bool expected = !port->enabled() || commanded(OMX_CommandPortDisable, portIndex) ||
                        commanded(OMX_CommandStateSet, OMX_StateLoaded);
  if (buffer->place == Buffer::Place::Working) discard(lock, *port, OMX_CommandFlush);
  port->erase(*buffer);
  if (!expected) raiseError(OMX_ErrorPortUnpopulated, portIndex);
  callWorker(lock);
  return OMX_ErrorNone;
}

OMX_ERRORTYPE Component::submit(OMX_DIRTYPE direction, OMX_BUFFERHEADERTYPE* header) {
  if (header == nullptr) return OMX_ErrorBadParameter;
  Lock lock(mutex_);
  if (state_ == OMX_StateInvalid) return OMX_ErrorInvalidState;
  for (Port& port : ports_) {
    Buffer* const buffer = port.find(header);
    if (buffer == nullptr) continue;
    if (port.definition.eDir != direction) return OMX_ErrorBadPortIndex;
    if (header->nSize != sizeof *header || header->nVersion.nVersion != OMX_VERSION)
      return OMX_ErrorVersionMismatch;
    if (!port.enabled() || commanded(OMX_CommandPortDisable, port.definition.nPortIndex) ||
        (state_ != OMX_StateExecuting && state_ != OMX_StatePause))
      return OMX_ErrorIncorrectStateOperation;
    if (buffer->place != Buffer::Place::Client) return OMX_ErrorBadParameter;
    if (port.isInput() && (header->nOffset > header->nAllocLen ||
                           header->nFilledLen > header->nAllocLen - header->nOffset))
      return OMX_ErrorBadParameter;
    port.enqueue(*buffer);
    callWorker(lock);
    return OMX_ErrorNone;
  }
  return OMX_ErrorBadParameter;
}

}  // namespace il
