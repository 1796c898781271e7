#include <DorvikCore/DKError.h>
#include <DorvikCore/DKMemoryPool.h>
#include <DorvikCore/DKMessageSource.h>

#include "errors/DKErrorParamOps.h"
#include "text/DKUtf.h"

#include <atomic>
#include <cstdio>
#include <new>
#include <string>
#include <type_traits>

namespace {

std::atomic<const DKErrorParamOps*> g_dateTimeOps{nullptr};

// Calls f with a null pointer of the C++ type stored for a parameter type. ParamNone is never
// stored and ParamDKDateTime values go through their installed operations: both call nothing.
template <class F>
void VisitParamType(DKErrorI::ErrorParamType type, F&& f) {
  switch (type) {
  case DKErrorI::ParamDouble: f(static_cast<double*>(nullptr)); break;
  case DKErrorI::ParamInt: f(static_cast<int*>(nullptr)); break;
  case DKErrorI::ParamLong: f(static_cast<long*>(nullptr)); break;
  case DKErrorI::ParamDKString: f(static_cast<DKString*>(nullptr)); break;
  case DKErrorI::ParamDKDouble: f(static_cast<DKDouble*>(nullptr)); break;
  case DKErrorI::ParamNone:
  case DKErrorI::ParamDKDateTime: break;
  }
}

template <class T>
void* NewValue(const T& value) {
  void* block = DMMemoryPool::New(sizeof(T));
  try {
    return new (block) T(value);
  } catch (...) {
    DMMemoryPool::Delete(block);
    throw;
  }
}

void FreeValue(const DKErrorWithArgs::Storage& param) noexcept {
  if (param.type == DKErrorI::ParamDKDateTime) {
    g_dateTimeOps.load(std::memory_order_acquire)->destroy(param.value);
    return;
  }
  VisitParamType(param.type, [&](auto* tag) {
    using T = std::remove_pointer_t<decltype(tag)>;
    static_cast<T*>(param.value)->~T();
  });
  DMMemoryPool::Delete(param.value);
}

void FreeParams(std::vector<DKErrorWithArgs::Storage>& params) noexcept {
  for (const auto& param : params)
    FreeValue(param);
  params.clear();
}

// Deep copy; on failure nothing is left allocated.
std::vector<DKErrorWithArgs::Storage> CopyParams(const std::vector<DKErrorWithArgs::Storage>& source) {
  std::vector<DKErrorWithArgs::Storage> copy;
  copy.reserve(source.size());
  try {
    for (const auto& param : source) {
      if (param.type == DKErrorI::ParamDKDateTime) {
        copy.push_back({param.type, g_dateTimeOps.load(std::memory_order_acquire)->copy(param.value)});
        continue;
      }
      VisitParamType(param.type, [&](auto* tag) {
        using T = std::remove_pointer_t<decltype(tag)>;
        copy.push_back({param.type, NewValue(*static_cast<const T*>(param.value))});
      });
    }
  } catch (...) {
    FreeParams(copy);
    throw;
  }
  return copy;
}

// printf-formatted number as text; the two passes make the result exact whatever its length.
template <class T>
DKString FormatNumber(const char* format, T value) {
  const int length = std::snprintf(nullptr, 0, format, value);
  if (length <= 0)
    return DKString();
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::snprintf(text.data(), text.size(), format, value);
  DKString out;
  dkutf::Utf8ToUtf16(text.data(), static_cast<std::size_t>(length), out, true);
  return out;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// DKErrorI

DKErrorI::~DKErrorI() = default;

int DKErrorI::GetIUID() const { return IUID; }
std::size_t DKErrorI::GetParameterCount() const { return 0; }
DKErrorI::ErrorParamType DKErrorI::GetParameterType(std::size_t) const { return ParamNone; }
const void* DKErrorI::GetParameterValue(std::size_t) const { return nullptr; }
DKString DKErrorI::GetParameterValueAsString(std::size_t, const DKExecContext&) const { return DKString(); }

// ---------------------------------------------------------------------------------------------
// DKError

DKError::DKError(const DKSmartPtrToConst<DKMessageSource>& formatter, long code, Severity severity)
    : DKErrorI(code, severity), m_formatter(formatter) {}

DKError::~DKError() = default;

DKErrorID DKError::AsString(DKString& out, const DKFormatContext& context) const {
  if (!m_formatter)
    return DKMessageSource::UnknownCode(out, GetCode());
  return m_formatter->GetText(out, GetCode(), DKFormatContext(this, context.GetExecContext()));
}

// ---------------------------------------------------------------------------------------------
// DKErrorWithArgs

DKErrorWithArgs::DKErrorWithArgs(const DKSmartPtrToConst<DKMessageSource>& formatter, long code, Severity severity)
    : DKError(formatter, code, severity) {}

DKErrorWithArgs::DKErrorWithArgs(const DKErrorWithArgs& other) : DKError(other), m_params(CopyParams(other.m_params)) {}

DKErrorWithArgs& DKErrorWithArgs::operator=(const DKErrorWithArgs& other) {
  if (this != &other) {
    std::vector<Storage> copy = CopyParams(other.m_params);
    DKError::operator=(other);
    FreeParams(m_params);
    m_params.swap(copy);
  }
  return *this;
}

DKErrorWithArgs::~DKErrorWithArgs() { FreeParams(m_params); }

template <class T>
std::size_t DKErrorWithArgs::Append(ErrorParamType type, const T& value) {
  // Room first, so that the push_back below cannot fail after the copy; growing by half keeps
  // adding parameters linear.
  if (m_params.size() == m_params.capacity())
    m_params.reserve(m_params.size() + m_params.size() / 2 + 4);
  m_params.push_back({type, NewValue(value)});
  return m_params.size() - 1;
}

template <class T>
bool DKErrorWithArgs::Read(T& out, ErrorParamType type, std::size_t index) const {
  if (index >= m_params.size() || m_params[index].type != type)
    return false;
  out = *static_cast<const T*>(m_params[index].value);
  return true;
}

std::size_t DKErrorWithArgs::AddParam(double value) { return Append(ParamDouble, value); }
std::size_t DKErrorWithArgs::AddParam(int value) { return Append(ParamInt, value); }
std::size_t DKErrorWithArgs::AddParam(long value) { return Append(ParamLong, value); }
std::size_t DKErrorWithArgs::AddParam(const DKString& value) { return Append(ParamDKString, value); }
std::size_t DKErrorWithArgs::AddParam(const DKDouble& value) { return Append(ParamDKDouble, value); }

bool DKErrorWithArgs::GetParam(double& out, std::size_t index) const { return Read(out, ParamDouble, index); }
bool DKErrorWithArgs::GetParam(int& out, std::size_t index) const { return Read(out, ParamInt, index); }
bool DKErrorWithArgs::GetParam(long& out, std::size_t index) const { return Read(out, ParamLong, index); }
bool DKErrorWithArgs::GetParam(DKString& out, std::size_t index) const { return Read(out, ParamDKString, index); }
bool DKErrorWithArgs::GetParam(DKDouble& out, std::size_t index) const { return Read(out, ParamDKDouble, index); }

std::size_t DKErrorWithArgs::GetParameterCount() const { return m_params.size(); }

DKErrorI::ErrorParamType DKErrorWithArgs::GetParameterType(std::size_t index) const {
  return index < m_params.size() ? m_params[index].type : ParamNone;
}

const void* DKErrorWithArgs::GetParameterValue(std::size_t index) const {
  return index < m_params.size() ? m_params[index].value : nullptr;
}

DKString DKErrorWithArgs::GetParameterValueAsString(std::size_t index, const DKExecContext& context) const {
  if (index >= m_params.size())
    return DKString();
  const void* value = m_params[index].value;
  switch (m_params[index].type) {
  case ParamDouble: return FormatNumber("%f", *static_cast<const double*>(value));
  case ParamInt: return FormatNumber("%d", *static_cast<const int*>(value));
  case ParamLong: return FormatNumber("%ld", *static_cast<const long*>(value));
  case ParamDKString: return *static_cast<const DKString*>(value);
  case ParamDKDouble: return static_cast<const DKDouble*>(value)->AsString();
  case ParamDKDateTime: return g_dateTimeOps.load(std::memory_order_acquire)->text(value, context);
  case ParamNone: break;
  }
  return DKString();
}

// ---------------------------------------------------------------------------------------------
// DKErrorString

DKErrorID DKErrorID::FromText(const DKString& text, long code) {
  return DKErrorID(DKSmartPtr<DKErrorString>(new DKErrorString(text, code)));
}

DKErrorString::DKErrorString(const DKString& text, long code, Severity severity)
    : DKErrorI(code, severity), m_text(text) {}

DKErrorString::~DKErrorString() = default;

DKErrorID DKErrorString::AsString(DKString& out, const DKFormatContext&) const {
  out = m_text;
  return DKErrorID();
}

// ---------------------------------------------------------------------------------------------
// DKErrorID

DKString DKErrorID::AsString() const {
  if (!m_error)
    return DKString(DK_T("SUCCESS"));
  DKString text;
  m_error->AsString(text, DKFormatContext()).IgnoreError(); // a failure still leaves a text to show
  return text;
}

void DKInstallDateTimeParamOps(const DKErrorParamOps* ops) noexcept { g_dateTimeOps.store(ops, std::memory_order_release); }
