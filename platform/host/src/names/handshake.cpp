#include "names/handshake.h"

#include "kn/status.h"
#include "nk/message.h"

#include <sys/socket.h>

namespace borven_host {

Greeting MakeGreeting() noexcept {
    return {GreetingMagic, LayoutVersion, NkRecordSize};
}

Answer MakeAnswer(std::int32_t status) noexcept {
    return {AnswerMagic, AnswerVersion, NkRecordSize, status, 0};
}

std::int32_t Check(const Greeting& greeting) noexcept {
    if (greeting.magic != GreetingMagic || greeting.recordSize != NkRecordSize) {
        return KnStatusDenied;
    }
    const bool isServed = greeting.layoutVersion >= OldestLayoutVersion && greeting.layoutVersion <= LayoutVersion;
    return isServed ? KnStatusOk : KnStatusOtherVersion;
}

bool IsValid(const Answer& answer) noexcept {
    return answer.magic == AnswerMagic && answer.version == AnswerVersion && answer.recordSize == NkRecordSize;
}

bool SendAnswer(int socket, std::int32_t status) noexcept {
    const Answer answer = MakeAnswer(status);
    return ::send(socket, &answer, sizeof answer, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof answer;
}

} // namespace borven_host
