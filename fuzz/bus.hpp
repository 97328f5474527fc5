#pragma once

#include <systemd/sd-bus.h>

#include <functional>

namespace fuzz
{

/** Puts the reply's content into the message. */
using Answer = std::function<void(sd_bus_message* reply)>;

/** Makes every method call succeed at once with that answer: in this process,
 *  without a bus. */
void answerCalls(Answer answer);

} // namespace fuzz
