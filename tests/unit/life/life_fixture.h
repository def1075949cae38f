// life_fixture.h - the whole library without its threads and its network: clients of the pool whose connections are
// socket pairs, packets handed to the network callback as the network layer hands them on, clocks in the test's hand.
#ifndef TARN_TESTS_LIFE_FIXTURE_H
#define TARN_TESTS_LIFE_FIXTURE_H

#include "unit/handler/handler_fixture.h"
#include "wire/support/packets.h"

namespace tarn::test {

struct World : Handling {
    World() : Handling(300) {}
};

} // namespace tarn::test

#endif
