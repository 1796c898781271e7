// The library holds one copy of every constant of its exported classes. A program reads a class
// constant as a value from the header, but one that binds it to a reference (a test macro's
// const T& parameter does) takes its address, which on Windows must come from the DLL; the DLL
// exports only the constants it emits, and it emits those whose address it takes: here. The
// file sits in the top layer because it names classes of every layer.
#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKCommandLine.h>
#include <DorvikCore/DKCondition.h>
#include <DorvikCore/DKConfig.h>
#include <DorvikCore/DKConfigFile.h>
#include <DorvikCore/DKDate.h>
#include <DorvikCore/DKDateEx.h>
#include <DorvikCore/DKDurationEx.h>
#include <DorvikCore/DKErrorID.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKLog.h>
#include <DorvikCore/DKObject.h>
#include <DorvikCore/DKPlugIn.h>
#include <DorvikCore/DKRegEx.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKStringConverter.h>
#include <DorvikCore/DKSync.h>
#include <DorvikCore/DKThread.h>
#include <DorvikCore/DKUnitTest.h>
#include <DorvikCore/DKUsageInfo.h>

namespace {

[[gnu::used]] const void* const exportedConstants[] = {
    &DKApplication::ChannelName,
    &DKApplicationWithPlugIns::PlugInExtension,
    &DKApplicationWithPlugIns::ListFileName,
    &DKApplicationWithPlugIns::EntryPointName,
    &DKApplicationWithPlugIns::MaxListLine,
    &DKApplicationWithPlugIns::MaxContainerDepth,
    &DKCommandLine::standardArgDelimiters,
    &DKCommandLine::standardValueDelimiters,
    &DKCondition::maxParseDepth,
    &DKCondition::dateTimeFormat,
    &DKConfig::maxLineLength,
    &DKConfig::lookupLineLength,
    &DKConfigFile::maxLoadNotes,
    &DKDate::reference,
    &DKDate::referenceYear,
    &DKDate::defaultStringFormat,
    &DKDateTime::defaultStringFormat,
    &DKDateEx::minYear,
    &DKDateEx::maxYear,
    &DKDateEx::defaultFormat,
    &DKTimeEx::NULL_TIME,
    &DKTimeEx::msPerDay,
    &DKDurationEx::maximum_,
    &DKDurationEx::minimum_,
    &DKErrorI::IUID,
    &DKException::MessageMarker,
    &DKException::StackDisabledText,
    &DKException::DefaultSupportNotice,
    &DKLogManager::NoChannel,
    &DKObjectI::IUID,
    &DKPlugIn::IUID,
    &DKPlugIn::SilentPlugInId,
    &DKRunPlugIn::IUID,
    &DKThreadedRunPlugIn::IUID,
    &DKPlugInContainer::IUID,
    &DKRegEx::maxRepeatCount,
    &DKRegEx::maxProgramSize,
    &DKRegEx::defaultCacheBytes,
    &DKString::npos,
    &DKString::maxLength,
    &DKStringConverter::codePageSystem,
    &DKStringConverter::codePageWindows1252,
    &DKStringConverter::codePageLatin1,
    &DKStringConverter::codePageUTF8,
    &DKCountingSemaphore::DefaultMaximum,
    &DKThread::ComModelMask,
    &DKUnitTest::MaxChoiceLine,
    &DKUsageInfo::nameWidth,
    &DKUsageInfo::descriptionWidth,
};

} // namespace
