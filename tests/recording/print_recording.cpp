// print_recording FILE: prints what the reader finds, a value or note a line, and how the file ended.

#include "recording/recording_reader.h"

#include <iostream>

int main(int argc, char** argv) try {
    using namespace recording;
    if (argc != 2) {
        return 2;
    }
    RecordingReader reader(argv[1]);
    while (const auto item = reader.Next()) {
        if (const auto* message = std::get_if<Message>(&*item)) {
            const Channel& channel = reader.Channels().at(message->channel);
            std::cout << channel.topic << ' ' << (channel.isFloat ? "float " : "int ") << message->sequence << ' '
                      << message->time.time_since_epoch().count() << ' ' << message->value << '\n';
        } else {
            std::cout << "note " << std::get<Note>(*item).name << '\n';
        }
    }
    std::cout << "others " << reader.OtherMessages() << '\n'
              << (reader.End().isComplete ? "complete" : "cut") << std::endl;
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
