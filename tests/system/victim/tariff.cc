// SPDX-License-Identifier: BSD-2-Clause
// The shared object of orderd.
#include "tests/system/victim/tariff.h"

[[gnu::noinline]] static long Discounted(const long* rates, long items)
{
    const long price = *rates * items;
    return items > 10 ? price - price / 10 : price;
}

long TariffOf(const long* rates, long items)
{
    const long price = Discounted(rates, items);
    return price + 1;
}

long AskFor(long (*price)())
{
    const long answer = price();
    return answer + 1;
}

static const long* noRates;

[[gnu::always_inline]] inline long Halved(const long* rates) { return *rates / 2; }

long HalfTariff() { return Halved(noRates) + 1; }
