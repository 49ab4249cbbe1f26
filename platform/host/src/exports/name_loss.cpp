#include "ns/name_loss.h"

#include "base/no_throw.h"
#include "joining/housekeeper.h"

using namespace borven_host;

void NsOnNameLost(NsNameLostHandler handler, void* context) noexcept {
    NoThrow([&] {
        Housekeeper::Instance().OnNameLost(handler, context);
        return KnStatusOk;
    });
}
