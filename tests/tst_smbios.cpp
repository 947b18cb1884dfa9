#include "platform/firmwaretable.h"
#include "support/smbiostable.h"
#include "updatechecker.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTest>
#include <cstdlib>
#include <memory>
#include <random>

using namespace smbios;

Q_DECLARE_METATYPE(Bytes)

namespace {

const QString stored = "10111213-1415-1617-1819-1A1B1C1D1E1F";
const QString littleEndian = "13121110-1514-1716-1819-1A1B1C1D1E1F";

// The walker on exactly the table's bytes on the heap, so that any read past them is caught;
// whatever the table, it gives a well-formed UUID text or nothing.
QString walk(const Bytes& table) {
    std::unique_ptr<uint8_t[]> exact(new uint8_t[table.size()]);
    std::copy(table.begin(), table.end(), exact.get());
    const QString hostId = hostIdFromSmbiosTable(exact.get(), table.size());
    if (!hostId.isEmpty() &&
        !QRegularExpression("^[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$").match(hostId).hasMatch())
        std::abort();
    return hostId;
}

Bytes without(Bytes bytes, std::size_t last) {
    bytes.resize(bytes.size() - last);
    return bytes;
}

} // namespace

// libFuzzer's entry point: the input is taken as a whole raw table.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    walk(Bytes(data, data + size));
    return 0;
}

class TestSmbios : public QObject {
    Q_OBJECT

private slots:
    void walksTables_data();
    void walksTables();
    void mutatedTablesNeverReadOutside();
};

void TestSmbios::walksTables_data() {
    QTest::addColumn<Bytes>("table");
    QTest::addColumn<QString>("hostId");
    const Bytes good = concat({structure(0, 10), structure(1), structure(127, 4)});
    Bytes badHeader = structure(0);
    badHeader.insert(badHeader.end(), {1, 27, 1});
    Bytes zeroLength = structure(0);
    zeroLength[1] = 0;
    Bytes overlong = structure(0);
    overlong[1] = 0xFF;

    QTest::newRow("SMBIOS 2.4: stored order") << rsmb(2, 4, good) << stored;
    QTest::newRow("2.5, last stored-order version") << rsmb(2, 5, good) << stored;
    QTest::newRow("2.6, first little-endian version") << rsmb(2, 6, good) << littleEndian;
    QTest::newRow("3.2, type 1 alone") << rsmb(3, 2, structure(1)) << littleEndian;
    QTest::newRow("type 1 of length 24") << rsmb(2, 8, structure(1, 24)) << littleEndian;
    QTest::newRow("first long type 1 wins")
        << rsmb(2, 8, concat({structure(1), structure(1, 27, 0x20)})) << littleEndian;
    QTest::newRow("short type 1 skipped")
        << rsmb(2, 8, concat({structure(1, 23, 0x20), structure(1)})) << littleEndian;
    QTest::newRow("SMBIOS 2.0 type 1 skipped")
        << rsmb(2, 8, concat({structure(1, 8, 0x20), structure(1)})) << littleEndian;
    QTest::newRow("zeros and ones mixed")
        << rsmb(2, 8, structure(1, 27, 0xF8)) << "FBFAF9F8-FDFC-FFFE-0001-020304050607";
    QTest::newRow("shorter than its header") << Bytes{0, 2, 8, 0, 0, 0, 0} << "";
    QTest::newRow("zero length") << rsmb(2, 8, {}) << "";
    QTest::newRow("truncated") << without(rsmb(2, 8, good), 10) << "";
    QTest::newRow("length field short of the buffer") << concat({rsmb(2, 8, good), {0}}) << "";
    QTest::newRow("type 1 cut in its formatted area")
        << rsmb(2, 8, without(concat({structure(0), structure(1)}), 20)) << "";
    QTest::newRow("header cut") << rsmb(2, 8, badHeader) << "";
    QTest::newRow("no type 1") << rsmb(2, 8, concat({structure(0), structure(127, 4)})) << "";
    QTest::newRow("strings without their end")
        << rsmb(2, 8, concat({without(structure(0), 1), structure(1)})) << "";
    QTest::newRow("last strings without their end") << rsmb(2, 8, without(structure(0), 1)) << "";
    QTest::newRow("zero formatted length") << rsmb(2, 8, concat({zeroLength, structure(1)})) << "";
    QTest::newRow("formatted area past the data")
        << rsmb(2, 8, concat({overlong, structure(1)})) << "";
    QTest::newRow("all-zero UUID") << rsmb(2, 8, structure(1, 27, 0)) << "";
    QTest::newRow("all-0xFF UUID") << rsmb(2, 8, structure(1, 27, 0xFF)) << "";

    // Linux publishes the version in the entry point beside the structures.
    const std::string structures(good.begin(), good.end());
    const auto linux = [&](const std::string& entryPoint) {
        return platform::rsmbFromDmiTables(entryPoint, structures);
    };
    QTest::newRow("Linux, SMBIOS 2 entry point")
        << linux(std::string("_SM_\x5a\x1f\x02\x04\x40", 9) + std::string(22, '\0')) << stored;
    QTest::newRow("Linux, SMBIOS 3 entry point")
        << linux(std::string("_SM3_\x33\x18\x03\x02", 9) + std::string(15, '\0')) << littleEndian;
    QTest::newRow("Linux, legacy DMI entry point") << linux("_DMI_\x02\x08") << "";
    QTest::newRow("Linux, cut entry point") << linux(std::string("_SM3_\x00\x18", 7)) << "";
    QTest::newRow("Linux, no entry point") << linux("") << "";
}

void TestSmbios::walksTables() {
    QFETCH(Bytes, table);
    QTEST(walk(table), "hostId");
}

void TestSmbios::mutatedTablesNeverReadOutside() {
    const std::vector<Bytes> seeds{concat({structure(0), structure(1), structure(127, 4)}),
                                   concat({structure(1, 8), structure(1)}), structure(1, 24),
                                   Bytes{}};
    std::mt19937 random(0x5eedb12d);
    auto below = [&random](std::size_t bound) {
        return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
    };
    // A fixed number of inputs, few enough for the sanitizer builds.
    long found = 0;
    for (int input = 0; input < 100000; ++input) {
        Bytes table = rsmb(2, static_cast<uint8_t>(below(10)), seeds[below(seeds.size())]);
        for (std::size_t edit = below(6); edit > 0; --edit) {
            const std::size_t at = below(table.size() + 1);
            switch (below(4)) {
            case 0:
                table.insert(table.begin() + at, below(16) + 1, static_cast<uint8_t>(random()));
                break;
            case 1:
                table.resize(at);
                break;
            default:
                if (at < table.size())
                    table[at] = below(2) ? static_cast<uint8_t>(random()) : 0xFF * below(2);
            }
        }
        // Most inputs get a matching length field so that the walk goes past that check.
        if (table.size() >= 8 && below(4) != 0)
            for (int shift = 0; shift < 4; ++shift)
                table[4 + shift] = static_cast<uint8_t>((table.size() - 8) >> (8 * shift));
        found += walk(table).isEmpty() ? 0 : 1;
    }
    // The mutations must reach both outcomes, or the walk was not exercised in depth.
    QVERIFY2(found > 0 && found < 100000, qPrintable(QString::number(found)));
}

QTEST_GUILESS_MAIN(TestSmbios)
#include "tst_smbios.moc"
