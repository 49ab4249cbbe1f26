#pragma once

#include "raw_socket.h"
#include "records/shared_memory_slot.h"

#include <sys/mman.h>

namespace platform_test {

/// A client that has joined, by default the static connection "line", and does its half of the slot and doorbell
/// protocol by hand, step by step.
class RawSlot final {
public:
    explicit RawSlot(std::uint16_t layoutVersion = borven_host::LayoutVersion,
                     const std::string& name = "static/line") {
        EXPECT_EQ(0, socket.Connect(name));
        EXPECT_TRUE(socket.Greet(layoutVersion));
        pollfd waited{socket.Get(), POLLIN, 0};
        if (::poll(&waited, 1, static_cast<int>(PatienceMs)) == 0) {
            GiveUp("a server should answer a greeting");
        }
        borven_host::Answer answer{};
        iovec bytes{&answer, sizeof answer};
        std::array<int, 3> passed{-1, -1, -1};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof passed)> control{};
        msghdr message{};
        message.msg_iov = &bytes;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        EXPECT_EQ(static_cast<ssize_t>(sizeof answer), ::recvmsg(socket.Get(), &message, MSG_CMSG_CLOEXEC));
        EXPECT_EQ(KnStatusOk, answer.status);
        const cmsghdr* const part = CMSG_FIRSTHDR(&message);
        if (part == nullptr || part->cmsg_len != CMSG_LEN(sizeof passed)) {
            GiveUp("a server should pass a client its ends");
        }
        std::memcpy(passed.data(), CMSG_DATA(part), sizeof passed);
        file = passed[0];
        bell = passed[1];
        doorbell = passed[2];
        void* const memory = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        EXPECT_NE(MAP_FAILED, memory);
        slot = static_cast<borven_host::SharedSlot*>(memory);
    }
    RawSlot(RawSlot&& other) noexcept
        : socket(std::move(other.socket)), file(std::exchange(other.file, -1)), bell(std::exchange(other.bell, -1)),
          doorbell(std::exchange(other.doorbell, -1)), slot(std::exchange(other.slot, nullptr)), last(other.last) {}
    ~RawSlot() {
        if (slot != nullptr) {
            ::munmap(slot, 4096);
            ::close(file);
            ::close(bell);
            ::close(doorbell);
        }
    }

    borven_host::SharedSlot& Slot() const { return *slot; }
    const RawSocket& Socket() const { return socket; }
    int File() const { return file; }
    int Bell() const { return bell; }
    int Doorbell() const { return doorbell; }

    /// Publishes the next request, with any `pieces`.
    void Publish(std::uint32_t pieces) { PublishAs(++last, pieces); }
    void PublishAs(std::uint32_t sequence, std::uint32_t pieces) const {
        slot->request.word.store(borven_host::SlotWord(sequence, pieces).Raw());
    }
    void Ring(std::uint64_t count = 0) const { static_cast<void>(!::write(bell, &count, sizeof count)); }

    void Send(const Record& request) {
        Publish(slot->request.Put(&request, sizeof request));
        Ring();
    }

    bool IsAnswered() const { return Reply().Sequence() == last; }
    borven_host::SlotWord Reply() const { return borven_host::SlotWord(slot->reply.word.load()); }

    /// Returns: the status in place of a reply, 0 with the reply.
    std::int32_t AwaitReply(Record* response = nullptr) const {
        Await("a request by hand should be answered", [this] { return IsAnswered(); });
        if (response != nullptr) {
            slot->reply.Get(response, Reply().Pieces());
        }
        return Reply().Status();
    }

    std::int32_t Call(const Record& request, Record* response = nullptr) {
        Send(request);
        return AwaitReply(response);
    }

private:
    RawSocket socket;
    int file = -1;
    int bell = -1;
    int doorbell = -1;
    borven_host::SharedSlot* slot = nullptr;
    std::uint32_t last = 0;
};

} // namespace platform_test
