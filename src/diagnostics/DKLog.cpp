// The log manager, its console and file subscribers, and the log streams.
#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKLog.h>

#include <DorvikCore/DKFormat.h>

#include "base/DKThreadExit.h"
#include "os/DKClock.h"
#include "os/DKEnvironment.h"
#include "os/DKFileSystem.h"
#include "os/DKProcess.h"
#include "os/DKSystem.h"

#include <algorithm>
#include <map>
#include <vector>

namespace {

DKString SystemErrorText(int code) { return DKString::FromUTF8(DKSystem::ErrorCodeText(code)); }

} // namespace

DKLogSubscriberI::~DKLogSubscriberI() = default;

bool DKLogSubscriberI::IsGood() const { return true; }

// ---------------------------------------------------------------------------------------------

DKConsoleLogSubscriber::~DKConsoleLogSubscriber() = default;

void DKConsoleLogSubscriber::Write(std::uint32_t, std::uint32_t, std::string_view text) {
  DKLockedCOUT out;
  out.GetCout().write(text.data(), static_cast<std::streamsize>(text.size()));
}

// ---------------------------------------------------------------------------------------------

DKFileLogSubscriber::DKFileLogSubscriber(const DKString& fileName, OpenMode mode) : m_fileName(fileName) {
  const std::string path = fileName.AsUTF8();
  if (path.empty() || path.find('\0') != std::string::npos) {
    m_errorText = DKString(DK_T("invalid log file name \"")) + fileName + DK_T("\"");
    return;
  }
  m_path = path;
  m_file = DKFileSystem::OpenFile(path, mode == Truncate ? "wb" : "ab");
  if (!m_file) {
    m_errorText = DKString(DK_T("cannot open the log file ")) + fileName + DK_T(": ") +
                  SystemErrorText(DKSystem::LastErrorCode());
    return;
  }
  // An appended file counts what it holds already towards its rotation.
  DKFileSystem::FileSize(m_file, m_size); // stays 0 when the system cannot tell
}

DKFileLogSubscriber::~DKFileLogSubscriber() {
  if (m_file)
    std::fclose(m_file);
}

void DKFileLogSubscriber::Write(std::uint32_t, std::uint32_t, std::string_view text) {
  std::lock_guard guard(m_lock);
  if (m_maxBytes != 0 && m_file && m_size != 0 && m_atLineStart && m_size + text.size() > m_maxBytes)
    Rotate();
  if (!m_file || text.empty())
    return;
  m_size += std::fwrite(text.data(), 1, text.size(), m_file);
  m_atLineStart = text.back() == '\n';
  std::fflush(m_file);
}

void DKFileLogSubscriber::SetRotation(std::uint64_t maxBytes, unsigned keepCount) {
  std::lock_guard guard(m_lock);
  m_maxBytes = maxBytes;
  m_keepCount = keepCount;
}

// Called with the lock held and the file open. The file is closed only once its own rename has
// worked, so that a failure anywhere leaves it open and growing.
void DKFileLogSubscriber::Rotate() {
  auto numbered = [this](unsigned n) { return m_path + "." + std::to_string(n); };
  int failure = 0;
  std::string failedName;
  if (m_keepCount > 0) {
    DKFileSystem::RemoveFile(numbered(m_keepCount)); // may well not exist
    for (unsigned n = m_keepCount - 1; n >= 1 && failure == 0; --n)
      if (DKEnvironment::PathExists(numbered(n)) && !DKFileSystem::RenameFile(numbered(n), numbered(n + 1))) {
        failure = DKSystem::LastErrorCode();
        failedName = numbered(n);
      }
    if (failure == 0 && !DKFileSystem::RenameFile(m_path, numbered(1))) {
      failure = DKSystem::LastErrorCode();
      failedName = m_path;
    }
  } else if (!DKFileSystem::RemoveFile(m_path)) {
    failure = DKSystem::LastErrorCode();
    failedName = m_path;
  }
  if (failure != 0) {
    m_errorText = DKStrCat(DK_T("cannot rotate the log file "), m_fileName, DK_T(" ("), failedName, DK_T("): "),
                           SystemErrorText(failure));
    m_maxBytes = 0; // rests until set again, instead of failing on every line
    return;
  }
  std::FILE* fresh = DKFileSystem::OpenFile(m_path, "wb");
  if (!fresh) {
    // The old file is safe under its new name and still open: lines go on into it.
    m_errorText = DKString(DK_T("cannot start a new log file ")) + m_fileName + DK_T(": ") +
                  SystemErrorText(DKSystem::LastErrorCode());
    m_maxBytes = 0;
    return;
  }
  std::fclose(m_file);
  m_file = fresh;
  m_size = 0;
  m_atLineStart = true;
}

DKString DKFileLogSubscriber::GetErrorText() const {
  std::lock_guard guard(m_lock);
  return m_errorText;
}

bool DKFileLogSubscriber::IsSameFile(const DKFileLogSubscriber& other) const {
  if (&other == this)
    return IsGood();
  std::scoped_lock guard(m_lock, other.m_lock);
  return DKFileSystem::IsSameFile(m_file, other.m_file);
}

bool DKFileLogSubscriber::IsGood() const {
  std::lock_guard guard(m_lock);
  return m_file != nullptr;
}

// ---------------------------------------------------------------------------------------------

struct DKLogManager::Impl {
  struct Subscription {
    DKSmartPtr<DKLogSubscriberI> subscriber;
    std::uint32_t level;
  };
  struct Channel {
    DKString name;
    std::vector<Subscription> subscriptions;
    std::shared_ptr<Gate> gate = std::make_shared<Gate>();

    // Called with the manager's lock held after every change of the subscriptions.
    void UpdateGate() {
      std::uint64_t reach = 0;
      for (const Subscription& subscription : subscriptions)
        reach = std::max<std::uint64_t>(reach, std::uint64_t{subscription.level} + 1);
      gate->m_reach.store(reach, std::memory_order_relaxed);
    }
  };

  mutable std::mutex lock; // guards channels and the error-log path
  std::map<ChannelId, Channel> channels;
  ChannelId lastId = NoChannel;
  DKString errorLogFile;
  std::mutex errorLogWrite; // one writer of the error log at a time

  Channel* Find(ChannelId id) {
    const auto it = channels.find(id);
    return it == channels.end() ? nullptr : &it->second;
  }
  const Channel* Find(ChannelId id) const {
    const auto it = channels.find(id);
    return it == channels.end() ? nullptr : &it->second;
  }
  static Subscription* FindSubscription(Channel& channel, const DKLogSubscriberI* subscriber) {
    for (Subscription& subscription : channel.subscriptions)
      if (subscription.subscriber.Get() == subscriber)
        return &subscription;
    return nullptr;
  }
};

DKLogManager::DKLogManager() : m_impl(std::make_unique<Impl>()) {}

DKLogManager::~DKLogManager() = default;

DKLogManager& DKLogManager::Get() {
  static DKLogManager* const manager = new DKLogManager;
  return *manager;
}

DKLogManager::ChannelId DKLogManager::AddChannel(const DKString& name) {
  std::lock_guard guard(m_impl->lock);
  const ChannelId id = ++m_impl->lastId;
  m_impl->channels[id].name = name;
  return id;
}

DKLogManager::ChannelId DKLogManager::FindOrAddChannel(const DKString& name) {
  std::lock_guard guard(m_impl->lock);
  for (const auto& [id, channel] : m_impl->channels)
    if (channel.name.IsEqual(name, DKString::IgnoreCase))
      return id;
  const ChannelId id = ++m_impl->lastId;
  m_impl->channels[id].name = name;
  return id;
}

std::shared_ptr<const DKLogManager::Gate> DKLogManager::GetGate(ChannelId channel) const {
  static const std::shared_ptr<const Gate> closed = std::make_shared<Gate>();
  std::lock_guard guard(m_impl->lock);
  const Impl::Channel* found = m_impl->Find(channel);
  return found ? std::shared_ptr<const Gate>(found->gate) : closed;
}

bool DKLogManager::RemoveChannel(ChannelId channel) {
  Impl::Channel removed;
  {
    std::lock_guard guard(m_impl->lock);
    const auto it = m_impl->channels.find(channel);
    if (it == m_impl->channels.end())
      return false;
    removed = std::move(it->second);
    m_impl->channels.erase(it);
    removed.gate->m_reach.store(0, std::memory_order_relaxed);
  }
  // The subscribers are released here, outside the lock: a destructor may log.
  return true;
}

bool DKLogManager::HasChannel(ChannelId channel) const {
  std::lock_guard guard(m_impl->lock);
  return m_impl->Find(channel) != nullptr;
}

DKLogManager::ChannelId DKLogManager::FindChannel(const DKString& name) const {
  std::lock_guard guard(m_impl->lock);
  for (const auto& [id, channel] : m_impl->channels)
    if (channel.name.IsEqual(name, DKString::IgnoreCase))
      return id;
  return NoChannel;
}

DKString DKLogManager::GetChannelName(ChannelId channel) const {
  std::lock_guard guard(m_impl->lock);
  const Impl::Channel* found = m_impl->Find(channel);
  return found ? found->name : DKString();
}

bool DKLogManager::Subscribe(ChannelId channel, const DKSmartPtr<DKLogSubscriberI>& subscriber, std::uint32_t level) {
  if (!subscriber || !subscriber->IsGood())
    return false;
  std::lock_guard guard(m_impl->lock);
  Impl::Channel* found = m_impl->Find(channel);
  if (!found)
    return false;
  if (Impl::Subscription* existing = Impl::FindSubscription(*found, subscriber.Get()))
    existing->level = level;
  else
    found->subscriptions.push_back({subscriber, level});
  found->UpdateGate();
  return true;
}

bool DKLogManager::ChangeSubscriptionLevel(ChannelId channel, const DKLogSubscriberI* subscriber, std::uint32_t level) {
  std::lock_guard guard(m_impl->lock);
  Impl::Channel* found = m_impl->Find(channel);
  Impl::Subscription* subscription = found ? Impl::FindSubscription(*found, subscriber) : nullptr;
  if (!subscription)
    return false;
  subscription->level = level;
  found->UpdateGate();
  return true;
}

bool DKLogManager::Unsubscribe(ChannelId channel, const DKLogSubscriberI* subscriber) {
  DKSmartPtr<DKLogSubscriberI> released; // released outside the lock
  std::lock_guard guard(m_impl->lock);
  Impl::Channel* found = m_impl->Find(channel);
  if (!found)
    return false;
  auto& list = found->subscriptions;
  const auto it = std::find_if(list.begin(), list.end(),
                               [subscriber](const Impl::Subscription& s) { return s.subscriber.Get() == subscriber; });
  if (it == list.end())
    return false;
  released = std::move(it->subscriber);
  list.erase(it);
  found->UpdateGate();
  return true;
}

std::size_t DKLogManager::GetSubscriberCount(ChannelId channel) const {
  std::lock_guard guard(m_impl->lock);
  const Impl::Channel* found = m_impl->Find(channel);
  return found ? found->subscriptions.size() : 0;
}

bool DKLogManager::GetSubscriptionLevel(ChannelId channel, const DKLogSubscriberI* subscriber,
                                        std::uint32_t& level) const {
  std::lock_guard guard(m_impl->lock);
  const Impl::Channel* found = m_impl->Find(channel);
  if (!found)
    return false;
  for (const Impl::Subscription& subscription : found->subscriptions)
    if (subscription.subscriber.Get() == subscriber) {
      level = subscription.level;
      return true;
    }
  return false;
}

bool DKLogManager::IsLogged(ChannelId channel, std::uint32_t level) const {
  std::lock_guard guard(m_impl->lock);
  const Impl::Channel* found = m_impl->Find(channel);
  if (!found)
    return false;
  return std::any_of(found->subscriptions.begin(), found->subscriptions.end(),
                     [level](const Impl::Subscription& s) { return level <= s.level; });
}

void DKLogManager::Publish(ChannelId channel, std::uint32_t level, std::string_view text) {
  if (text.empty())
    return;
  // The receivers are collected under the lock and written to outside it, so that a slow file
  // or console never holds up subscription changes, and a subscriber may itself publish.
  constexpr std::size_t inlineCount = 4;
  DKSmartPtr<DKLogSubscriberI> inlineReceivers[inlineCount];
  std::vector<DKSmartPtr<DKLogSubscriberI>> moreReceivers;
  std::size_t count = 0;
  {
    std::lock_guard guard(m_impl->lock);
    const Impl::Channel* found = m_impl->Find(channel);
    if (!found)
      return;
    for (const Impl::Subscription& subscription : found->subscriptions) {
      if (level > subscription.level)
        continue;
      if (count < inlineCount)
        inlineReceivers[count] = subscription.subscriber;
      else
        moreReceivers.push_back(subscription.subscriber);
      ++count;
    }
  }
  for (std::size_t i = 0; i < count && i < inlineCount; ++i)
    inlineReceivers[i]->Write(channel, level, text);
  for (const auto& receiver : moreReceivers)
    receiver->Write(channel, level, text);
}

void DKLogManager::SetErrorLogFile(const DKString& folder, const DKString& fileName) {
  DKString path = folder;
  if (!path.IsEmpty() && !DKFileSystem::IsSeparator(path[path.Length() - 1]))
    path += DKFileSystem::Separator();
  path += fileName;
  std::lock_guard guard(m_impl->lock);
  m_impl->errorLogFile = path;
}

DKString DKLogManager::GetErrorLogFile() const {
  std::lock_guard guard(m_impl->lock);
  return m_impl->errorLogFile;
}

bool DKLogManager::AppendToErrorLog(const DKString& text) {
  const std::string path = GetErrorLogFile().AsUTF8();
  if (path.empty())
    return false;
  std::lock_guard guard(m_impl->errorLogWrite);
  std::FILE* file = DKFileSystem::OpenFile(path, "ab");
  if (!file)
    return false;
  std::string line = text.AsUTF8();
  line += '\n';
  const bool written = std::fwrite(line.data(), 1, line.size(), file) == line.size();
  return std::fclose(file) == 0 && written;
}

// ---------------------------------------------------------------------------------------------

DKLogStreamBuf::DKLogStreamBuf(DKLogManager::ChannelId channel, std::uint32_t level)
    : m_channel(channel), m_level(level) {}

DKLogStreamBuf::~DKLogStreamBuf() {
  if (!m_pending.empty())
    Publish(m_pending);
}

void DKLogStreamBuf::SetLevel(std::uint32_t level) {
  if (level == m_level)
    return;
  sync();
  m_level = level;
}

void DKLogStreamBuf::Publish(std::string_view text) {
  DKLogManager::Get().Publish(m_channel, m_level, text);
}

DKLogStreamBuf::int_type DKLogStreamBuf::overflow(int_type ch) {
  if (traits_type::eq_int_type(ch, traits_type::eof()))
    return traits_type::not_eof(ch);
  const char c = traits_type::to_char_type(ch);
  m_pending += c;
  if (c == '\n') {
    Publish(m_pending);
    m_pending.clear();
  }
  return ch;
}

std::streamsize DKLogStreamBuf::xsputn(const char* text, std::streamsize count) {
  std::string_view rest(text, static_cast<std::size_t>(count));
  for (std::size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
    if (m_pending.empty()) {
      Publish(rest.substr(0, end + 1));
    } else {
      m_pending.append(rest.substr(0, end + 1));
      Publish(m_pending);
      m_pending.clear();
    }
    rest.remove_prefix(end + 1);
  }
  m_pending.append(rest);
  return count;
}

int DKLogStreamBuf::sync() {
  if (!m_pending.empty()) {
    Publish(m_pending);
    m_pending.clear();
  }
  return 0;
}

// ---------------------------------------------------------------------------------------------

DKLogStream::DKLogStream(DKLogManager::ChannelId channel, std::uint32_t level)
    : std::ostream(nullptr), m_buffer(channel, level) {
  rdbuf(&m_buffer);
}

DKLogStream::~DKLogStream() { m_buffer.pubsync(); }

namespace {

// The streams of the calling thread, one per channel it wrote to.
struct ThreadStreams {
  std::vector<std::unique_ptr<DKLogStream>> streams;
};

} // namespace

DKLogStream& DKLogStream::ForThread(DKLogManager::ChannelId channel) {
  ThreadStreams* owned = dkbase::ThreadOwned<ThreadStreams>::Get();
  if (!owned) {
    // The thread is ending (its cleanups have run): what it writes from here on still gets
    // out, through streams kept until the process ends.
    thread_local ThreadStreams* late = nullptr;
    if (!late)
      late = new ThreadStreams;
    owned = late;
  }
  std::vector<std::unique_ptr<DKLogStream>>& streams = owned->streams;
  for (const auto& stream : streams)
    if (stream->GetChannel() == channel)
      return *stream;
  // Streams of channels that were removed since are dropped, so that a thread that outlives
  // many applications keeps few streams.
  DKLogManager& manager = DKLogManager::Get();
  std::erase_if(streams, [&manager](const std::unique_ptr<DKLogStream>& stream) {
    return !manager.HasChannel(stream->GetChannel());
  });
  streams.push_back(std::make_unique<DKLogStream>(channel));
  return *streams.back();
}

// ---------------------------------------------------------------------------------------------

namespace {

constexpr const char* kSeverityNames[] = {"ERROR", "WARNING", "INFO", "DEBUG", "TRACE"};

bool EqualIgnoringAsciiCase(std::string_view a, std::string_view b) noexcept {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return (x >= 'A' && x <= 'Z' ? x + ('a' - 'A') : x) == (y >= 'A' && y <= 'Z' ? y + ('a' - 'A') : y);
         });
}

void AppendDigits(std::string& out, long long value, int width) {
  char digits[24];
  int count = 0;
  unsigned long long magnitude = value < 0 ? 0ull - static_cast<unsigned long long>(value) : value;
  do {
    digits[count++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (value < 0)
    out += '-';
  for (int pad = count; pad < width; ++pad)
    out += '0';
  while (count > 0)
    out += digits[--count];
}

} // namespace

const char* DKLogSeverityName(DKLogSeverity severity) noexcept {
  const auto index = static_cast<std::size_t>(severity);
  return index < std::size(kSeverityNames) ? kSeverityNames[index] : "?";
}

bool DKLogSeverityFromName(std::string_view name, DKLogSeverity& severity) noexcept {
  for (std::size_t i = 0; i < std::size(kSeverityNames); ++i)
    if (EqualIgnoringAsciiCase(name, kSeverityNames[i])) {
      severity = static_cast<DKLogSeverity>(i);
      return true;
    }
  if (EqualIgnoringAsciiCase(name, "warn")) {
    severity = DKLogSeverity::Warning;
    return true;
  }
  return false;
}

// A pattern cut into literal text and placeholders, once, when it is set.
struct DKLogger::Layout {
  enum Kind : char { Text, Time, Severity, Channel, Message, Thread };
  struct Part {
    Kind kind;
    std::string text; // of a Text part
  };
  DKString pattern;
  std::vector<Part> parts;
  bool usesTime = false;

  explicit Layout(const DKString& source) : pattern(source) {
    const std::string utf8 = source.AsUTF8();
    std::string text;
    auto flush = [&] {
      if (!text.empty())
        parts.push_back({Text, std::move(text)});
      text.clear();
    };
    for (std::size_t i = 0; i < utf8.size(); ++i) {
      const char next = i + 1 < utf8.size() ? utf8[i + 1] : '\0';
      Kind kind = Text;
      if (utf8[i] == '%') {
        switch (next) {
        case 't': kind = Time; break;
        case 's': kind = Severity; break;
        case 'c': kind = Channel; break;
        case 'm': kind = Message; break;
        case 'T': kind = Thread; break;
        case '%':
          text += '%';
          ++i;
          continue;
        default: break;
        }
      }
      if (kind == Text) {
        text += utf8[i];
        continue;
      }
      flush();
      parts.push_back({kind, {}});
      usesTime = usesTime || kind == Time;
      ++i;
    }
    flush();
  }
};

DKLogger::DKLogger(const DKString& channelName) : DKLogger(DKLogManager::Get().FindOrAddChannel(channelName)) {}

DKLogger::DKLogger(DKLogManager::ChannelId channel)
    : m_channel(channel), m_channelName(DKLogManager::Get().GetChannelName(channel)),
      m_gate(DKLogManager::Get().GetGate(channel)), m_layout(std::make_shared<const Layout>(DK_T("%t %s %m"))) {}

DKLogger::~DKLogger() = default;

void DKLogger::SetPattern(const DKString& pattern) {
  auto layout = std::make_shared<const Layout>(pattern);
  std::lock_guard guard(m_layoutLock);
  m_layout = std::move(layout);
}

DKString DKLogger::GetPattern() const {
  std::lock_guard guard(m_layoutLock);
  return m_layout->pattern;
}

std::string DKLogger::TimeStamp(std::chrono::system_clock::time_point when, TimeZone zone) {
  using namespace std::chrono;
  const long long ms = duration_cast<milliseconds>(when.time_since_epoch()).count();
  long long seconds = ms / 1000;
  int millis = static_cast<int>(ms % 1000);
  if (millis < 0) {
    millis += 1000;
    --seconds;
  }
  const int offset = zone == TimeZone::Utc ? 0 : DKClock::LocalOffsetAt(seconds);
  const long long local = seconds + offset;
  long long days = local / 86400;
  long long secondOfDay = local % 86400;
  if (secondOfDay < 0) {
    secondOfDay += 86400;
    --days;
  }
  const year_month_day date{sys_days{std::chrono::days{days}}};
  std::string out;
  out.reserve(32);
  AppendDigits(out, static_cast<int>(date.year()), 4);
  out += '-';
  AppendDigits(out, static_cast<unsigned>(date.month()), 2);
  out += '-';
  AppendDigits(out, static_cast<unsigned>(date.day()), 2);
  out += 'T';
  AppendDigits(out, secondOfDay / 3600, 2);
  out += ':';
  AppendDigits(out, secondOfDay / 60 % 60, 2);
  out += ':';
  AppendDigits(out, secondOfDay % 60, 2);
  out += '.';
  AppendDigits(out, millis, 3);
  if (zone == TimeZone::Utc) {
    out += 'Z';
  } else {
    const int magnitude = offset < 0 ? -offset : offset;
    out += offset < 0 ? '-' : '+';
    AppendDigits(out, magnitude / 3600, 2);
    out += ':';
    AppendDigits(out, magnitude / 60 % 60, 2);
  }
  return out;
}

std::string DKLogger::FormatLine(DKLogSeverity severity, std::string_view message,
                                 std::chrono::system_clock::time_point when) const {
  std::shared_ptr<const Layout> layout;
  {
    std::lock_guard guard(m_layoutLock);
    layout = m_layout;
  }
  if (!message.empty() && message.back() == '\n')
    message.remove_suffix(1);
  std::string line;
  line.reserve(message.size() + 48);
  for (const Layout::Part& part : layout->parts) {
    switch (part.kind) {
    case Layout::Text: line += part.text; break;
    case Layout::Time: line += TimeStamp(when, GetTimeZone()); break;
    case Layout::Severity: line += DKLogSeverityName(severity); break;
    case Layout::Channel: line += m_channelName.AsUTF8(); break;
    case Layout::Message: line += message; break;
    case Layout::Thread: AppendDigits(line, static_cast<long long>(DKProcess::CurrentThreadId()), 1); break;
    }
  }
  if (layout->parts.empty())
    line += message;
  return line;
}

void DKLogger::Write(DKLogSeverity severity, const char* format, DKFormatArgList args) {
  struct Scratch {
    std::string text;
  };
  Scratch* scratch = dkbase::ThreadOwned<Scratch>::Get(); // kept, so that its capacity is reused
  std::string ownText;
  std::string& message = scratch ? scratch->text : ownText;
  message.clear();
  if (format)
    DKFormatAppend(message, format, args);
  std::string line = FormatLine(severity, message, std::chrono::system_clock::now());
  line += '\n';
  DKLogManager::Get().Publish(m_channel, DKLogLevelOf(severity), line);
}
