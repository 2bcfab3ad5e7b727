// SPDX-License-Identifier: BSD-2-Clause
#ifndef TESTS_SYSTEM_VICTIM_TARIFF_H
#define TESTS_SYSTEM_VICTIM_TARIFF_H

/// What an order costs: `rates` has the price of one item.
extern "C" [[gnu::visibility("default")]] long TariffOf(const long* rates, long items);

/// What half an order costs, of rates that are not there: the function that looks is inlined.
extern "C" [[gnu::visibility("default")]] long HalfTariff();

/// Asks somebody else, who may not be there.
extern "C" [[gnu::visibility("default")]] long AskFor(long (*price)());

#endif
