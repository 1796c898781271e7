// Calls into plug-in code (internal). Plug-ins are foreign code: whatever one of them throws is
// caught where the framework calls it and becomes an error naming the plug-in and the call, so
// that this plug-in fails while the host and the other plug-ins go on.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKPlugIn.h>
#include <DorvikCore/DKString.h>

#include <exception>
#include <string>
#include <vector>

namespace dkapp {

inline DKString ExceptionText(const std::exception& e) {
  if (const auto* own = dynamic_cast<const DKException*>(&e))
    return own->What();
  return DKString::FromUTF8(e.what());
}

// Runs fn, which returns a DKErrorID; an exception becomes the error "<what> threw: <text>".
template <class F>
DKErrorID Guarded(const DKString& what, F&& fn) {
  try {
    return fn();
  } catch (const std::exception& e) {
    return DKErrorID::FromText(what + DK_T(" threw: ") + ExceptionText(e));
  } catch (...) {
    return DKErrorID::FromText(what + DK_T(" threw an unknown exception"));
  }
}

// The plug-in's name, or a stand-in when it cannot tell.
inline DKString SafeName(const DKPlugIn& plugIn) {
  try {
    return plugIn.GetName();
  } catch (...) {
    return DKString(DK_T("(plug-in without a name)"));
  }
}

// Runs fn, a call of the plug-in's member call; an exception becomes the error
// "<name>: <call> threw: <text>" (the name is asked only then).
template <class F>
DKErrorID CallPlugIn(const DKPlugIn& plugIn, const DKChar* call, F&& fn) {
  DKErrorID failed = Guarded(DKString(call), [&] {
    fn();
    return DKErrorID();
  });
  if (failed.Bad())
    failed = DKErrorID::FromText(DK_T("<") + SafeName(plugIn) + DK_T(">: ") + failed.AsString());
  return failed;
}

// none. The destructor relies on these never throwing.
inline DKGuid SafeGuid(const DKPlugIn& plugIn) {
  try {
    return plugIn.GetId().GetGuid();
  } catch (...) {
    return DKGuid();
  }
}

inline std::vector<DKPlugIn::PlugInIdEx> SafeDependencies(const DKPlugIn& plugIn) {
  try {
    return plugIn.GetDependentV();
  } catch (...) {
    return {};
  }
}

// The status as the framework set it. Plug-in code is not asked: the framework keeps the status
// itself, and a plug-in that could not tell it would be neither run nor unloaded.
inline DKPlugIn::Status StatusOf(const DKPlugIn& plugIn) { return plugIn.DKPlugIn::GetStatus(); }

} // namespace dkapp
