#include "recordings/loss_notes.h"

#include "recordings/about.h"

#include <string>
#include <utility>

namespace recordings {

void LossNotes::Update(const topics::Subscription& subscription, IDestination& destination) {
    const auto loss = subscription.Lost();
    if (loss.values > noted.values) {
        destination.Write(NoteNow("msgbus.loss", {{"values", std::to_string(loss.values - noted.values)}}));
    }
    if (loss.reconnections > noted.reconnections) {
        recording::Texts texts = About();
        texts["times"] = std::to_string(loss.reconnections - noted.reconnections);
        destination.Write(NoteNow("msgbus.restart", std::move(texts)));
    }
    noted = loss;
}

} // namespace recordings
