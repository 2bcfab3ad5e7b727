// SPDX-License-Identifier: BSD-2-Clause
// Qt (qtbase5-dev): its counted strings, of two bytes a character, and its data streams.
#include <QByteArray>
#include <QDataStream>
#include <QString>

#include "bench/peers/records.h"

namespace {

QString Source(const benchmark::State& state) { return QString(static_cast<int>(state.range(0)), 'x'); }

void Copy(benchmark::State& state)
{
    const QString source = Source(state);
    for (auto _ : state) {
        QString copy(source);
        benchmark::DoNotOptimize(copy.constData());
    }
}

void AppendCharacter(benchmark::State& state)
{
    const QString source = Source(state);
    for (auto _ : state) {
        QString s(source);
        s += QLatin1Char('y');
        benchmark::DoNotOptimize(s.constData());
    }
}

class Stream {
public:
    using Encoding = QByteArray;

    static void Write(const std::vector<Record>& records, Encoding& bytes)
    {
        QDataStream out(&bytes, QIODevice::WriteOnly);
        const QByteArray text(Text);
        for (const Record& r : records)
            out << static_cast<qint16>(r.number) << r.position << r.size << text;
    }

    static std::size_t Size(const Encoding& bytes) { return static_cast<std::size_t>(bytes.size()); }

    template <class Take>
    static bool Read(const Encoding& bytes, std::size_t count, const Take& take)
    {
        QDataStream in(bytes);
        QByteArray text;
        for (std::size_t i = 0; i < count; i++) {
            Record r = {};
            in >> r.number >> r.position >> r.size >> text;
            if (in.status() != QDataStream::Ok)
                return false;
            take(r, text.constData());
        }
        return true;
    }
};

BENCHMARK(Copy)->Name("Copy_QString")->ArgName("bytes")->Arg(16)->Arg(4096)->Arg(1 << 20);
BENCHMARK(AppendCharacter)->Name("AppendCharacter_QString")->ArgName("bytes")->Arg(64)->Arg(1024);
const bool Registered = RecordRows<Stream>::Register("QDataStream");

} // namespace
