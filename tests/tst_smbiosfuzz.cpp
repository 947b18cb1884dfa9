#include "support/smbiostable.h"
#include "updatechecker.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTest>
#include <cstdlib>
#include <memory>
#include <random>

namespace {

const QRegularExpression
    uuidText(QStringLiteral("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"));

// Whatever the table, the walker gives a well-formed UUID text or nothing.
bool walk(const uint8_t* data, std::size_t size) {
    const QString hostId = hostIdFromSmbiosTable(data, size);
    if (!hostId.isEmpty() && !uuidText.match(hostId).hasMatch())
        std::abort();
    return !hostId.isEmpty();
}

} // namespace

// libFuzzer's entry point: the input is taken as a whole raw table.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    walk(data, size);
    return 0;
}

class TestSmbiosFuzz : public QObject {
    Q_OBJECT

private slots:
    void mutatedTablesNeverReadOutside();
};

void TestSmbiosFuzz::mutatedTablesNeverReadOutside() {
    using namespace smbios;
    const std::vector<Bytes> seeds{
        concat({biosInformation(), systemInformation(sampleUuid), endOfTable()}),
        concat({systemInformation(sampleUuid, 8), systemInformation(sampleUuid)}),
        concat({biosInformation(), biosInformation(), endOfTable()}),
        systemInformation(sampleUuid, 24),
        Bytes{},
    };

    std::mt19937 random(0x5eedb12d);
    auto below = [&random](std::size_t bound) {
        return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
    };

    // Bounded by time so that the sanitizer build, several times slower, stays short.
    QElapsedTimer clock;
    clock.start();
    long inputs = 0;
    long found = 0;
    while (clock.elapsed() < 2000 && inputs < 1000000) {
        const Bytes& seed = seeds[below(seeds.size())];
        Bytes table = rsmb(2, static_cast<uint8_t>(below(10)), seed);
        const std::size_t edits = below(6);
        for (std::size_t edit = 0; edit < edits; ++edit) {
            switch (below(5)) {
            case 0:
                if (!table.empty())
                    table[below(table.size())] = static_cast<uint8_t>(random());
                break;
            case 1:
                if (!table.empty())
                    table[below(table.size())] = below(2) ? 0x00 : 0xFF;
                break;
            case 2:
                table.resize(below(table.size() + 1));
                break;
            case 3:
                table.insert(table.begin() + static_cast<long>(below(table.size() + 1)),
                             below(16) + 1, static_cast<uint8_t>(random()));
                break;
            default:
                table.resize(table.size() + below(64), static_cast<uint8_t>(random()));
                break;
            }
        }
        // Most inputs get a matching length field so that the walk goes past that check.
        if (table.size() >= 8 && below(4) != 0) {
            const auto length = static_cast<uint32_t>(table.size() - 8);
            for (int shift = 0; shift < 4; ++shift)
                table[4 + shift] = static_cast<uint8_t>(length >> (8 * shift));
        }

        // Exactly the input's size on the heap, so that any read past it is caught.
        std::unique_ptr<uint8_t[]> exact(new uint8_t[table.size()]);
        std::copy(table.begin(), table.end(), exact.get());
        found += walk(exact.get(), table.size()) ? 1 : 0;
        ++inputs;
    }

    qInfo("%ld inputs in %lld ms, %ld gave an identifier", inputs,
          static_cast<long long>(clock.elapsed()), found);
    // The mutations must reach both outcomes, or the walk was not exercised in depth.
    QVERIFY(inputs > 1000);
    QVERIFY(found > 0);
    QVERIFY(found < inputs);
}

QTEST_GUILESS_MAIN(TestSmbiosFuzz)
#include "tst_smbiosfuzz.moc"
