// The log manager, its console and file subscribers, and the log streams.
#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKLog.h>

#include "os/DKFileSystem.h"
#include "os/DKSystem.h"

#include <algorithm>
#include <map>
#include <vector>

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
  m_file = DKFileSystem::OpenFile(path, mode == Truncate ? "wb" : "ab");
  if (!m_file) {
    const int code = DKSystem::LastErrorCode();
    m_errorText = DKStrCat(DK_T("cannot open the log file "), fileName, DK_T(": "), DKSystem::ErrorCodeText(code));
  }
}

DKFileLogSubscriber::~DKFileLogSubscriber() {
  if (m_file)
    std::fclose(m_file);
}

void DKFileLogSubscriber::Write(std::uint32_t, std::uint32_t, std::string_view text) {
  std::lock_guard guard(m_lock);
  if (!m_file)
    return;
  std::fwrite(text.data(), 1, text.size(), m_file);
  std::fflush(m_file);
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

bool DKLogManager::RemoveChannel(ChannelId channel) {
  Impl::Channel removed;
  {
    std::lock_guard guard(m_impl->lock);
    const auto it = m_impl->channels.find(channel);
    if (it == m_impl->channels.end())
      return false;
    removed = std::move(it->second);
    m_impl->channels.erase(it);
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
  return true;
}

bool DKLogManager::ChangeSubscriptionLevel(ChannelId channel, const DKLogSubscriberI* subscriber, std::uint32_t level) {
  std::lock_guard guard(m_impl->lock);
  Impl::Channel* found = m_impl->Find(channel);
  Impl::Subscription* subscription = found ? Impl::FindSubscription(*found, subscriber) : nullptr;
  if (!subscription)
    return false;
  subscription->level = level;
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

DKLogStream& DKLogStream::ForThread(DKLogManager::ChannelId channel) {
  thread_local std::vector<std::unique_ptr<DKLogStream>> streams;
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
