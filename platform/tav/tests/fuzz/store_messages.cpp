// Each kind of message of the store's protocol: a message that is read completely is written as the
// same bytes again, and one that is read partly only yields an error.
#include <algorithm>

#include "fuzz/fuzz.h"
#include "protocol/history.h"

namespace {

using fuzz::require;

template <typename Read, typename Write>
void round_trip(const std::string &body, const Read &read, const Write &write) {
    tav::Reader in(body);
    read(in);
    require(in.ok() || !in.finished(), "a failed reader calls itself finished");
    require(in.ok() || (in.u64() == 0 && in.text().empty()), "a failed reader still gives bytes");
    if (!in.finished()) {
        for (std::size_t left = 0; in.ok() && left <= body.size(); ++left) {
            in.u8();
        }
        require(!in.ok(), "a reader gives more than there is");
        return;
    }
    tav::Writer out;
    write(out);
    require(out.size() == body.size(), "the size of what was written");
    const std::string frame = out.finish();
    std::string_view again;
    require(tav::next_frame(frame, again) == tav::FrameState::complete, "no complete frame");
    fuzz::require_same(std::string(again), body, "what was read is written otherwise");
    for (std::size_t length = 0; length < std::min<std::size_t>(body.size(), 300); ++length) {
        // A copy of exactly this size, so that the address sanitizer reports a read beyond it.
        const std::string part = body.substr(0, length);
        tav::Reader cut(part);
        read(cut);
        require(!cut.finished(), "a part of a message is taken for the whole");
    }
}

template <typename Message>
void one(const std::string &body) {
    Message message;
    round_trip(
        body, [&](tav::Reader &in) { tav::get(in, message); },
        [&](tav::Writer &out) { tav::put(out, message); });
}

template <typename Message>
void many(const std::string &body) {
    std::vector<Message> messages;
    round_trip(
        body, [&](tav::Reader &in) { tav::get_all(in, messages); },
        [&](tav::Writer &out) { tav::put_all(out, messages); });
}

using target_t = void (*)(const std::string &);
constexpr target_t targets[] = {
    &one<tav::RequestHeader>, &one<tav::ReplyHeader>,     &one<tav::Hello>,
    &one<tav::Ticket>,        &one<tav::Registration>,    &one<tav::WatchdogRequest>,
    &one<tav::DumpElement>,   &one<tav::Child>,           &one<tav::ServiceStatus>,
    &one<api_status_t>,       &one<std::string>,          &many<std::string>,
    &many<tav::Item>,         &many<tav::LeafAnswer>,     &many<tav::Child>,
    &many<tav::Event>,        &many<api_status_t>,        &many<tav::DumpElement>,
    &many<tav::ClientStatus>, &many<tav::WatchdogStatus>, &one<tav::Farewell>,
    &one<tav::LimitStatus>,   &one<tav::HistoryRequest>,  &one<tav::ChangedElement>,
    &many<tav::HistoryEntry>, &one<tav::AheadElement>,    &many<tav::PendingChange>};

} // namespace

// An input is the kind and the body.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::input_t input(data, size);
    const std::size_t kind = input.byte() % std::size(targets);
    targets[kind](input.rest());
    return 0;
}
