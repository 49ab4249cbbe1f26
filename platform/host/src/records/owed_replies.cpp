#include "records/owed_replies.h"

#include "kn/status.h"

namespace borven_host {

OwedReplies::~OwedReplies() {
    if (owner != ::getpid()) {
        return;
    }
    for (const Entry& entry : entries) {
        if (entry.client) {
            entry.client->Answer(KnStatusAbandoned);
        }
    }
}

} // namespace borven_host
