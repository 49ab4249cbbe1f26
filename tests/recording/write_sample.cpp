// write_sample FILE COUNT [open]: writes a recording of the sample, which is left open where that is asked for.

#include "recording/recording_writer.h"
#include "sample.h"

#include <cstdlib>
#include <iostream>
#include <string>

int main(int argc, char** argv) try {
    using namespace recording;
    if (argc < 3) {
        return 2;
    }
    const auto count = std::strtoull(argv[2], nullptr, 10);
    RecordingWriter writer(argv[1], ExistingFile::IsReplaced, "write_sample");
    writer.Write(Note{"msgbus.begin", {{"host", "here"}, {"text", "\xC3\xA9\n"}}});
    const auto one = writer.Add({"sensors/one", "fixed;step=1/10;unit=V", false});
    const auto two = writer.Add({"two", "", true});
    std::uint32_t sequences[2] = {};
    for (std::uint64_t index = 0; index < count; ++index) {
        const bool isSecond = sample::IsOfSecond(index);
        writer.Write(Message{isSecond ? two : one, sequences[isSecond ? 1 : 0]++, sample::TimeAt(index),
                             sample::ValueAt(index)});
    }
    if (argc > 3) {
        writer.Flush();
        return 0;
    }
    writer.Write(Note{"msgbus.end", {{"values", std::to_string(count)}}});
    writer.Close();
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
