#include "bench/EchoClient.h"

#include "bench/Load.h"

namespace quorvane::bench {

namespace {

constexpr std::uint64_t kUnansweredCalls = 1024;

}  // namespace

void EchoClient::echoPipelined(std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t number = first; number < first + count; ++number) {
        processUntilUnanswered(kUnansweredCalls - 1);
        const BusMessage call = makeCall(_bus.get(), message(number));
        checkBus(::sd_bus_call_async(_bus.get(), nullptr, call.get(), takeAnswer, this, UINT64_MAX), "call");
        ++_unanswered;
    }
    processUntilUnanswered(0);
}

int EchoClient::takeAnswer(sd_bus_message* answer, void* client, sd_bus_error*) {
    checkBus(-::sd_bus_message_get_errno(answer), "echo");
    --static_cast<EchoClient*>(client)->_unanswered;
    return 1;
}

void EchoClient::processUntilUnanswered(std::uint64_t atMost) {
    while (_unanswered > atMost)
        if (checkBus(::sd_bus_process(_bus.get(), nullptr), "processing") == 0)
            checkBus(::sd_bus_wait(_bus.get(), UINT64_MAX), "waiting");
}

}  // namespace quorvane::bench
