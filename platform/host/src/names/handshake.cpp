#include "names/handshake.h"

#include "nk/message.h"

#include <sys/socket.h>

namespace borven_host {

Greeting MakeGreeting() noexcept {
    return {GreetingMagic, ProtocolVersion, NkRecordSize};
}

Answer MakeAnswer(std::int32_t status) noexcept {
    return {AnswerMagic, ProtocolVersion, NkRecordSize, status, 0};
}

bool IsValid(const Greeting& greeting) noexcept {
    return greeting.magic == GreetingMagic && greeting.version == ProtocolVersion &&
           greeting.recordSize == NkRecordSize;
}

bool IsValid(const Answer& answer) noexcept {
    return answer.magic == AnswerMagic && answer.version == ProtocolVersion && answer.recordSize == NkRecordSize;
}

bool SendAnswer(int socket, std::int32_t status) noexcept {
    const Answer answer = MakeAnswer(status);
    return ::send(socket, &answer, sizeof answer, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof answer;
}

} // namespace borven_host
