// The library's own messages, compiled in.
#include <DorvikCore/DKMessageSource.h>

#include "text/DKTextErrors.h"

DKSmartPtr<DKMessageSource> DKGetLibraryMessageSource() {
  // Created once and never destroyed, so errors built while the process shuts down (static
  // destructors) still find their text.
  static DKMessageSource* const source = [] {
    auto* messages = new DKMemoryMessageSource{
        {DK_MSG_UNSPECIFIED, DK_T("Unspecified failure")},
        {DK_MSG_INVALID_ARGUMENT, DK_T("Invalid argument: %0:s")},
        {DK_MSG_INVALID_UTF8, DK_T("Invalid UTF-8 sequence at byte %0:d")},
        {DK_MSG_UNKNOWN_CODE_PAGE, DK_T("Unknown code page %0:d")},
        {DK_MSG_UNMAPPABLE_CHARACTER, DK_T("Character at position %0:d has no form in code page %1:d")},
        {DK_MSG_INVALID_UTF16, DK_T("Unpaired surrogate at position %0:d")},
        {DK_MSG_SYSTEM_ERROR, DK_T("System error %0:d: %1:s")},
        {DK_MSG_TEXT_TOO_LONG, DK_T("Text too long: %0:d code units")},
        {DK_MSG_INVALID_DATE, DK_T("Invalid date: %0:s")},
        {DK_MSG_DUPLICATE_PLUGIN_ID, DK_T("Duplicate plug-in id %0:s")},
        {DK_MSG_UNKNOWN_MESSAGE, DK_T("Unknown message %0:d")},
        {DK_MSG_INVALID_REGEX, DK_T("Invalid regular expression \"%0:s\" at position %1:d: %2:s")},
        {DK_MSG_QUEUE_FULL, DK_T("%0:s: the queue is full (%1:d tasks)")},
        {DK_MSG_SHUT_DOWN, DK_T("%0:s is shut down")},
        {DK_MSG_TASK_CANCELLED, DK_T("The task was cancelled before it started")},
        {DK_MSG_TASK_EXCEPTION, DK_T("The task threw an exception: %0:s")},
        {DK_MSG_INVALID_SCHEDULE, DK_T("Invalid schedule \"%0:s\" at position %1:d: %2:s")},
    };
    messages->AddRef();
    return messages;
  }();
  return DKSmartPtr<DKMessageSource>(source);
}

DKSmartPtr<DKErrorWithArgs> DKLibraryError(long code, DKErrorI::Severity severity) {
  return DKSmartPtr<DKErrorWithArgs>(new DKErrorWithArgs(DKGetLibraryMessageSource(), code, severity));
}

namespace {

// The text layer's errors are the library's messages with long parameters.
DKErrorID MakeTextError(long code, const long* params, std::size_t count) {
  DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(code);
  for (std::size_t i = 0; i < count; ++i)
    error->AddParam(params[i]);
  return DKErrorID(error);
}

// Registered while the library loads, before any code outside it runs.
[[maybe_unused]] const bool g_textErrorsRegistered = (DKSetTextErrorFactory(&MakeTextError), true);

} // namespace
