#include "joining/housekeeper.h"

#include "base/log.h"
#include "base/thread_name.h"
#include "kn/connection_manager.h"
#include "kn/status.h"

#include <pthread.h>
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <csignal>
#include <exception>
#include <utility>

namespace borven_host {

using bos::logger::LogLevel;

namespace {

void CopyName(std::string_view name, char* buffer) {
    const std::size_t length = std::min(name.size(), KnCmNameSize - 1);
    std::copy_n(name.data(), length, buffer);
    buffer[length] = '\0';
}

/// Blocks every signal while a thread is started, which inherits that: signals are for the program's own threads.
class SignalsBlocked final {
public:
    SignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before, nullptr); }

private:
    sigset_t before{};
};

} // namespace

Housekeeper& Housekeeper::Instance() {
    static Housekeeper& housekeeper = *new Housekeeper;
    return housekeeper;
}

Housekeeper::Housekeeper() {
    // Fork runs the handlers in the reverse order of their registration, and the log's lock comes after these two.
    static_cast<void>(bos::logger::BOSLogger::RootLogger());
    ::pthread_atfork(&Housekeeper::BeforeFork, &Housekeeper::AfterForkInParent, &Housekeeper::AfterForkInChild);
}

// Both locks are held from the first of these functions to the second or third, which the analysis cannot follow.

void Housekeeper::BeforeFork() NO_THREAD_SAFETY_ANALYSIS {
    Instance().lifeMutex.Lock();
    Instance().mutex.Lock();
}

void Housekeeper::AfterForkInParent() NO_THREAD_SAFETY_ANALYSIS {
    Instance().mutex.Unlock();
    Instance().lifeMutex.Unlock();
}

void Housekeeper::AfterForkInChild() NO_THREAD_SAFETY_ANALYSIS {
    Instance().LeaveToParent();
    Instance().mutex.Unlock();
    Instance().lifeMutex.Unlock();
}

/// In a forked child: keeps no name alive, and does not touch what the parent still uses.
void Housekeeper::LeaveToParent() {
    struct Inherited {
        std::thread thread;
        Visitors::Map visitors;
        UniqueFd epoll;
    };
    static std::vector<Inherited>& inherited = *new std::vector<Inherited>;
    inherited.push_back({std::move(thread), visitors.Release(), poller.Release().epoll});
    admission.Abandon();
    nameLostHandler = nullptr;
    isReportingLoss = false;
}

std::int32_t Housekeeper::Offer(std::string_view name, std::shared_ptr<Channel> channel) {
    Admission::Listener listener;
    listener.channel = std::move(channel);
    const auto status = NamedSocket::Create(NameKind::Static, name, listener.socket);
    if (status == KnStatusOk) {
        Add(std::move(listener));
    }
    return status;
}

std::int32_t Housekeeper::Publish(std::string_view service, std::string_view type) {
    Admission::Listener listener;
    listener.service = service;
    listener.type = type;
    const auto status = NamedSocket::Create(NameKind::Service, service, listener.socket);
    if (status == KnStatusOk) {
        Add(std::move(listener));
    }
    return status;
}

void Housekeeper::Add(Admission::Listener listener) {
    const common::MutexLock life(lifeMutex);
    const common::MutexLock lock(mutex);
    Start();
    isListening = isListening || listener.channel == nullptr;
    admission.Add(std::move(listener));
}

void Housekeeper::Start() {
    if (thread.joinable()) {
        return;
    }
    assert(admission.IsEmpty() && visitors.IsEmpty());
    poller.Open();
    admission.Start();
    isStopping = false;
    try {
        const SignalsBlocked duringStart;
        thread = std::thread([this, waitsOn = poller.Get()] { Run(waitsOn); });
    } catch (...) {
        admission.Stop();
        static_cast<void>(poller.Release());
        throw;
    }
    NamePlatformThread(thread, "borven-house");
}

void Housekeeper::StopWhenIdle() {
    Poller::Descriptors stopped; // stay open until the thread that waits on them has ended
    {
        const common::MutexLock lock(mutex);
        if (!thread.joinable() || !admission.IsEmpty() || !visitors.IsEmpty()) {
            return;
        }
        isStopping = true;
        admission.Stop();
        poller.Wake();
        stopped = poller.Release();
    }
    thread.join();
}

std::int32_t Housekeeper::Listen(std::optional<std::string_view> task, Deadline deadline, char* clientName,
                                 char* serviceName) {
    common::MutexLock lock(mutex);
    const std::uint64_t stopsBefore = listeningStops;
    bool isLate = false;
    while (isListening && listeningStops == stopsBefore) {
        if (const auto* const visitor = visitors.Announce(task)) {
            CopyName(visitor->name, clientName);
            CopyName(visitor->service, serviceName);
            return KnStatusOk;
        }
        if (isLate) {
            return KnStatusTimedOut;
        }
        if (deadline == Deadline::max()) {
            asked.Wait(lock);
        } else {
            isLate = asked.WaitUntil(lock, deadline) == std::cv_status::timeout;
        }
    }
    return KnStatusClosed;
}

std::int32_t Housekeeper::Accept(std::string_view clientName, std::string_view service, std::uint16_t iid,
                                 const std::shared_ptr<Channel>& channel, std::int32_t refusal) {
    const common::MutexLock lock(mutex);
    auto* const visitor = visitors.FindAnnounced(clientName, service);
    if (visitor == nullptr) {
        return KnStatusNotFound;
    }
    if (Visitors::HasLeft(*visitor)) {
        visitors.Forget(*visitor);
        return KnStatusPeerGone;
    }
    if (!channel || !isListening) {
        const std::int32_t status = channel ? std::int32_t{KnStatusClosed} : refusal;
        visitors.Refuse(*visitor, status);
        return status;
    }
    const RequestFilter filter{iid, DeclaredMethodCount(visitor->type)};
    return visitors.Join(*visitor, channel, filter);
}

void Housekeeper::Close(const std::shared_ptr<Channel>& channel) {
    const common::MutexLock life(lifeMutex);
    std::optional<Admission::Listener> closed; // its name goes without `mutex`: that may wait for the directory's lock
    {
        const common::MutexLock lock(mutex);
        CloseChannel(*channel);
        closed = admission.Remove(*channel);
    }
    closed.reset();
    StopWhenIdle();
}

void Housekeeper::OnNameLost(NsNameLostHandler handler, void* context) {
    common::MutexLock lock(mutex);
    nameLostHandler = handler;
    nameLostContext = context;
    while (isReportingLoss) {
        lossReported.Wait(lock);
    }
}

void Housekeeper::StopListening() {
    const common::MutexLock lock(mutex);
    EndListening();
}

void Housekeeper::EndListening() {
    isListening = false;
    ++listeningStops;
    asked.NotifyAll();
}

void Housekeeper::CloseAll(const std::vector<std::shared_ptr<Channel>>& channels) {
    const common::MutexLock life(lifeMutex);
    Admission::Listeners closed; // their names go without `mutex`
    {
        const common::MutexLock lock(mutex);
        for (const auto& channel : channels) {
            CloseChannel(*channel);
        }
        visitors.RefuseAll(KnStatusClosed);
        closed = admission.RemoveAll();
        EndListening();
    }
    closed.clear();
    StopWhenIdle();
}

/// The visitors go first: once the channel has closed its sockets, the numbers that are watched may name others.
void Housekeeper::CloseChannel(Channel& channel) {
    visitors.ForgetAllOf(channel);
    channel.Close();
}

void Housekeeper::Run(int waitsOn) {
    std::array<epoll_event, 64> events{};
    int timeout = -1;
    while (true) {
        const int count = ::epoll_wait(waitsOn, events.data(), static_cast<int>(events.size()), timeout);
        std::vector<std::string> lostNames;
        {
            const common::MutexLock lock(mutex);
            if (isStopping) {
                return;
            }
            try {
                for (int i = 0; i < count; ++i) {
                    Handle(Poller::Decode(events[static_cast<std::size_t>(i)]));
                }
                const Deadline now = std::chrono::steady_clock::now();
                admission.Resume(now);
                visitors.Expire(now);
                lostNames = admission.RestoreNames(now);
            } catch (const std::exception& error) {
                Log(LogLevel::Error, {"failed to admit a client: ", error.what()});
            }
            timeout = PollTimeout(std::min(admission.NextDeadline(), visitors.NextDeadline()));
        }
        if (!lostNames.empty()) {
            ReportLostNames(lostNames);
        }
    }
}

void Housekeeper::ReportLostNames(const std::vector<std::string>& names) {
    NsNameLostHandler handler = nullptr;
    void* context = nullptr;
    {
        const common::MutexLock lock(mutex);
        handler = nameLostHandler;
        context = nameLostContext;
        isReportingLoss = true;
    }
    if (handler != nullptr) {
        for (const std::string& name : names) {
            handler(name.c_str(), context);
        }
    }
    const common::MutexLock lock(mutex);
    isReportingLoss = false;
    lossReported.NotifyAll();
}

void Housekeeper::Handle(const Poller::Event& event) {
    if (event.id == 0) {
        poller.ForgetWake();
        return;
    }
    if (admission.Admit(event.id)) {
        return;
    }
    auto* const visitor = visitors.Find(event.id);
    if (visitor == nullptr) {
        return; // an earlier event of the same batch has ended the visit
    }
    if (event.isOfProcess || (event.events & Poller::LeavingEvents) != 0) {
        visitors.Leave(*visitor);
    } else if (visitor->stage == Visitors::Stage::Greeting) {
        admission.ReadGreeting(*visitor);
    }
}

} // namespace borven_host
