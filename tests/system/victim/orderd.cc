// SPDX-License-Identifier: BSD-2-Clause
// A program that crashes in its shared object.
#include <cstdlib>
#include <ostream>

#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "tests/system/victim/tariff.h"

class Order : public MonitoredObject {
public:
    Order(long number, long items) : number(number), items(items) {}
    void dumpOn(std::ostream& os) const override
    {
        os << "order " << number << ", " << items << " items\n";
        if (const char* remark = getenv("ORDER_REMARK"))
            os << remark << '\n';
    }
    long Price(const long* rates) const
    {
        const long price = TariffOf(rates, items);
        return price * 2;
    }

private:
    const long number, items;
};

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, "1.0");
    const Order first(4711, 3);
    const Order second(4712, 20);
    const char* const asks = getenv("ORDER_ASKS");
    const long price = asks == nullptr ? second.Price(nullptr) : AskFor(*asks == '\0' ? nullptr : HalfTariff);
    return price == 0 ? 0 : 1;
}
