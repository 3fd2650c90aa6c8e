// SPDX-License-Identifier: Apache-2.0
// Reading and writing the set of virtual cameras.
#include <QtTest>

#include "app/virtualcameraconfig.h"
#include "tests/sandbox/sandbox.h"

namespace {

/// A member's object as text; @p values replaces or adds "key":value, an empty value removes.
QByteArray object(const QMap<QByteArray, QByteArray>& values = {})
{
    QMap<QByteArray, QByteArray> all = {
        {"Left", "30123456"}, {"Right", "30123457"}, {"IMU", "true"},   {"Width", "1920"},
        {"Height", "1200"},   {"FPS", "30"},         {"Port", "30000"}, {"HDR", "0"}};
    for (auto value = values.begin(); value != values.end(); ++value) {
        all[value.key()] = value.value();
    }
    QByteArrayList members;
    for (auto value = all.begin(); value != all.end(); ++value) {
        if (!value.value().isEmpty()) {
            members << '"' + value.key() + "\": " + value.value();
        }
    }
    return "{" + members.join(", ") + "}";
}

QByteArray file(const QByteArray& name, const QByteArray& member)
{
    return "{\"" + name + "\": " + member + "}\n";
}

QString text(const VirtualCameraInfos& record)
{
    return QString("%1: %2 %3 imu %4 %5x%6@%7 port %8 hdr %9%10")
        .arg(record.virtualSerialNumber)
        .arg(record.leftSerialNumber)
        .arg(record.rightSerialNumber)
        .arg(record.imu)
        .arg(record.width)
        .arg(record.height)
        .arg(record.fps)
        .arg(record.port)
        .arg(record.hdr)
        .arg(record.reserved ? " flagged" : "");
}

}  // namespace

class ConfigurationTest : public QObject {
    Q_OBJECT

    QList<VirtualCameraInfos> read(const QByteArray& content)
    {
        const QString path = directory.filePath("config.json");
        sandbox::writeFile(path, content);
        return readVirtualCameraConfig(path);
    }

    VirtualCameraInfos readOne(const QByteArray& content)
    {
        const QList<VirtualCameraInfos> records = read(content);
        return records.size() == 1 ? records.constFirst() : VirtualCameraInfos();
    }

    /// The message of the JSON library's exception, without its "[json.exception...] ".
    QByteArray failure(const QByteArray& content)
    {
        try {
            read(content);
        } catch (const nlohmann::json::exception& error) {
            const QByteArray message = error.what();
            return message.mid(message.indexOf("] ") + 2);
        } catch (const std::out_of_range& error) {
            return error.what();
        }
        return {};
    }

private slots:
    void path()
    {
        QCOMPARE(QByteArray(kVirtualCameraConfigPath),
                 QByteArray("/usr/local/kor/settings/virtual_tsolo_config.json"));
    }

    void record()
    {
        QCOMPARE(text(readOne(file("101234567", object({{"IMU", "false"}, {"HDR", "1"}})))),
                 QString("101234567: 30123456 30123457 imu 0 1920x1200@30 port 30000 hdr 1"));
    }

    void empty_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("object") << QByteArray("{}");
        QTest::newRow("object and line end") << QByteArray("{}\n");
        QTest::newRow("blanks") << QByteArray("  {\n }\n\n");
        QTest::newRow("array") << QByteArray("[]");
        QTest::newRow("null") << QByteArray("null");
    }
    void empty()
    {
        QFETCH(QByteArray, content);
        QCOMPARE(read(content).size(), 0);
    }

    void hdr_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<int>("hdr");
        QTest::newRow("absent") << QByteArray() << 0;
        QTest::newRow("0") << QByteArray("0") << 0;
        QTest::newRow("1") << QByteArray("1") << 1;
        QTest::newRow("7") << QByteArray("7") << 7;
        QTest::newRow("negative") << QByteArray("-1") << -1;
        QTest::newRow("boolean") << QByteArray("true") << 1;
        QTest::newRow("float") << QByteArray("1.9") << 1;
    }
    void hdr()
    {
        QFETCH(QByteArray, value);
        QFETCH(int, hdr);
        QCOMPARE(readOne(file("5", object({{"HDR", value}}))).hdr, hdr);
    }

    void keysAreCaseSensitive()
    {
        QCOMPARE(readOne(file("5", object({{"HDR", ""}, {"hdr", "1"}}))).hdr, 0);
        QCOMPARE(failure(file("5", object({{"Left", ""}, {"left", "1"}}))),
                 QByteArray("type must be number, but is null"));
    }

    void unknownKeysAreIgnored()
    {
        QCOMPARE(read(file("5", object({{"Comment", "[1, {}]"}}))).size(), 1);
    }

    void name_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<quint64>("serial");
        const auto wrapped = [](int value) { return static_cast<quint64>(qint64{value}); };
        QTest::newRow("plain") << QByteArray("101234567") << quint64{101234567};
        QTest::newRow("leading zeros") << QByteArray("007") << quint64{7};
        QTest::newRow("not octal") << QByteArray("0123") << quint64{123};
        QTest::newRow("not hexadecimal") << QByteArray("0x1F") << quint64{0};
        QTest::newRow("no number") << QByteArray("left") << quint64{0};
        QTest::newRow("empty") << QByteArray() << quint64{0};
        QTest::newRow("number, then text") << QByteArray("12ab") << quint64{12};
        QTest::newRow("blanks first") << QByteArray("  42") << quint64{42};
        QTest::newRow("plus") << QByteArray("+9") << quint64{9};
        QTest::newRow("negative") << QByteArray("-5") << wrapped(-5);
        QTest::newRow("largest") << QByteArray("2147483647") << quint64{2147483647};
        QTest::newRow("one more wraps") << QByteArray("2147483648") << wrapped(-2147483647 - 1);
        QTest::newRow("3 milliards") << QByteArray("3000000000") << wrapped(-1294967296);
        QTest::newRow("2^32 + 5") << QByteArray("4294967301") << quint64{5};
        QTest::newRow("beyond 64 bits") << QByteArray("99999999999999999999") << wrapped(-1);
        QTest::newRow("far below") << QByteArray("-99999999999999999999") << quint64{0};
    }
    void name()
    {
        QFETCH(QByteArray, name);
        QFETCH(quint64, serial);
        const QList<VirtualCameraInfos> records = read(file(name, object()));
        QCOMPARE(records.size(), 1);
        QCOMPARE(quint64{records.constFirst().virtualSerialNumber}, serial);
    }

    void numbers_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<int>("number");
        QTest::newRow("zero") << QByteArray("0") << 0;
        QTest::newRow("negative") << QByteArray("-7") << -7;
        QTest::newRow("float is cut") << QByteArray("29.97") << 29;
        QTest::newRow("negative float is cut towards zero") << QByteArray("-2.9") << -2;
        QTest::newRow("exponent") << QByteArray("1.2e3") << 1200;
        QTest::newRow("largest float") << QByteArray("2147483647.9") << 2147483647;
        QTest::newRow("smallest float") << QByteArray("-2147483648.9") << -2147483647 - 1;
        QTest::newRow("true") << QByteArray("true") << 1;
        QTest::newRow("false") << QByteArray("false") << 0;
        QTest::newRow("largest") << QByteArray("2147483647") << 2147483647;
        QTest::newRow("one more wraps") << QByteArray("2147483648") << -2147483647 - 1;
        QTest::newRow("2^32 + 7") << QByteArray("4294967303") << 7;
    }
    // Every number of a record is read as a signed 32-bit integer; serials are then widened with
    // their sign.
    void numbers()
    {
        QFETCH(QByteArray, value);
        QFETCH(int, number);
        const auto wide = static_cast<quint64>(qint64{number});
        QCOMPARE(quint64{readOne(file("5", object({{"Left", value}}))).leftSerialNumber}, wide);
        QCOMPARE(quint64{readOne(file("5", object({{"Right", value}}))).rightSerialNumber}, wide);
        QCOMPARE(readOne(file("5", object({{"Width", value}}))).width, number);
        QCOMPARE(readOne(file("5", object({{"Height", value}}))).height, number);
        QCOMPARE(readOne(file("5", object({{"FPS", value}}))).fps, number);
        QCOMPARE(readOne(file("5", object({{"Port", value}}))).port,
                 static_cast<std::uint32_t>(number));
        QCOMPARE(readOne(file("5", object({{"HDR", value}}))).hdr, number);
    }

    void wrongValues_data()
    {
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QByteArray>("message");
        for (const QByteArray key : {"Left", "Right", "Width", "Height", "FPS", "Port", "HDR"}) {
            for (const auto& [value, type] : {std::pair<QByteArray, QByteArray>{"\"30\"", "string"},
                                              {"null", "null"},
                                              {"[1]", "array"},
                                              {"{}", "object"}}) {
                QTest::newRow(key + ' ' + type)
                    << key << value << "type must be number, but is " + type;
            }
        }
        for (const QByteArray key : {"Left", "Right", "Width", "Height", "FPS", "Port"}) {
            QTest::newRow(key + " absent")
                << key << QByteArray() << QByteArray("type must be number, but is null");
        }
        for (const QByteArray key : {"Left", "Right", "Width", "Height", "FPS", "Port", "HDR"}) {
            for (const QByteArray value : {"2147483648.0", "-2147483649.0", "1e300"}) {
                QTest::newRow(key + ' ' + value)
                    << key << value << "the number of " + key + " does not fit 32 bits";
            }
        }
        for (const auto& [value, type] : {std::pair<QByteArray, QByteArray>{"1", "number"},
                                          {"1e300", "number"},
                                          {"0.5", "number"},
                                          {"\"true\"", "string"},
                                          {"null", "null"},
                                          {"", "null"},
                                          {"[true]", "array"},
                                          {"{}", "object"}}) {
            QTest::newRow("IMU " + (value.isEmpty() ? QByteArray("absent") : value))
                << QByteArray("IMU") << value << "type must be boolean, but is " + type;
        }
    }
    void wrongValues()
    {
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, value);
        QFETCH(QByteArray, message);
        QCOMPARE(failure(file("5", object({{key, value}}))), message);
    }

    void topLevel_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("array") << "[" + object() + "]";
        QTest::newRow("array of numbers") << QByteArray("[1, 2]");
        QTest::newRow("number") << QByteArray("17");
        QTest::newRow("text") << QByteArray("\"text\"");
        QTest::newRow("boolean") << QByteArray("true");
    }
    void topLevel()
    {
        QFETCH(QByteArray, content);
        QCOMPARE(failure(content), QByteArray("cannot use key() for non-object iterators"));
    }

    void memberIsNoObject_data()
    {
        QTest::addColumn<QByteArray>("member");
        for (const char* member : {"1", "\"text\"", "true", "[]", "null", "{}"}) {
            QTest::newRow(member) << QByteArray(member);
        }
    }
    void memberIsNoObject()
    {
        QFETCH(QByteArray, member);
        QVERIFY(!failure(file("5", member)).isEmpty());
    }

    void notJson_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("empty file") << QByteArray();
        QTest::newRow("blanks") << QByteArray("  \n");
        QTest::newRow("text") << QByteArray("left = 30123456");
        QTest::newRow("cut off") << file("5", object()).left(40);
        QTest::newRow("missing comma") << QByteArray("{\"5\": {\"Left\": 1 \"Right\": 2}}");
        QTest::newRow("something behind") << file("5", object()) + "rest";
        QTest::newRow("comment") << "// set\n" + file("5", object());
        QTest::newRow("not UTF-8") << file("5", object({{"Comment", "\"\xff\xfe\""}}));
    }
    void notJson()
    {
        QFETCH(QByteArray, content);
        QByteArray message;
        try {
            read(content);
        } catch (const nlohmann::json::parse_error& error) {
            message = error.what();
        }
        QVERIFY2(message.startsWith("[json.exception.parse_error.101] parse error at line"),
                 message);
    }

    // Members are visited in the byte order of their names, wherever they stand in the file.
    void order()
    {
        const QByteArray content = "{\"9\": " + object() + ", \"10\": " + object() +
                                   ", \"100\": " + object() + ", \"007\": " + object() + "}";
        QList<quint64> serials;
        for (const VirtualCameraInfos& record : read(content)) {
            serials << record.virtualSerialNumber;
        }
        QCOMPARE(serials, QList<quint64>({7, 10, 100, 9}));
    }

    void repeatedMember()
    {
        const QByteArray content = "{\"5\": " + object({{"FPS", "15"}, {"HDR", "1"}}) +
                                   ", \"5\": " + object({{"FPS", "60"}, {"HDR", ""}}) + "}";
        const QList<VirtualCameraInfos> records = read(content);
        QCOMPARE(records.size(), 1);
        QCOMPARE(records.constFirst().fps, 60);
        QCOMPARE(records.constFirst().hdr, 0);
        // Names that differ only in writing are different members.
        QCOMPARE(read("{\"5\": " + object() + ", \"05\": " + object() + "}").size(), 2);
    }

    void readsOneMember()
    {
        const nlohmann::json document = nlohmann::json::parse(file("007", object()).toStdString());
        QCOMPARE(text(parseConfig(document.cbegin())),
                 QString("7: 30123456 30123457 imu 1 1920x1200@30 port 30000 hdr 0"));
    }

    // ---- Writing -----------------------------------------------------------------------------

    static VirtualCameraInfos sample(quint64 serial)
    {
        VirtualCameraInfos record;
        record.virtualSerialNumber = serial;
        record.leftSerialNumber = 30123456;
        record.rightSerialNumber = 30123457;
        record.imu = true;
        record.width = 1920;
        record.height = 1200;
        record.fps = 30;
        record.port = 30000;
        return record;
    }

    static QByteArray written(const QList<VirtualCameraInfos>& records)
    {
        return QByteArray::fromStdString(serializeVirtualCameraConfig(records));
    }

    void writesNothing() { QCOMPARE(written({}), QByteArray("{}")); }

    void writesARecord()
    {
        QCOMPARE(written({sample(101234567)}),
                 QByteArray("{\"101234567\":{\"FPS\":30,\"HDR\":0,\"Height\":1200,\"IMU\":true,"
                            "\"Left\":30123456,\"Port\":30000,\"Right\":30123457,"
                            "\"Width\":1920}}"));
    }

    void writesEveryValue()
    {
        VirtualCameraInfos record;
        record.virtualSerialNumber = 18446744073709551615ull;
        record.leftSerialNumber = 3000000000ull;
        record.rightSerialNumber = 18446744073709551614ull;
        record.width = -1;
        record.height = 2147483647;
        record.fps = 0;
        record.port = 4294967295u;
        record.hdr = 2;
        record.reserved = true;
        QCOMPARE(written({record}),
                 QByteArray("{\"18446744073709551615\":{\"FPS\":0,\"HDR\":2,\"Height\":2147483647,"
                            "\"IMU\":false,\"Left\":3000000000,\"Port\":4294967295,"
                            "\"Right\":18446744073709551614,\"Width\":-1}}"));
    }

    void writesInByteOrder()
    {
        const QByteArray content = written({sample(9), sample(10), sample(100), sample(1)});
        int position = -1;
        for (const char* name : {"{\"1\":", ",\"10\":", ",\"100\":", ",\"9\":"}) {
            const int found = content.indexOf(name);
            QVERIFY2(found > position, name);
            position = found;
        }
        QVERIFY(!content.contains('\n') && !content.contains(' '));
    }

    void laterRecordWins()
    {
        VirtualCameraInfos later = sample(5);
        later.leftSerialNumber = 31000000;
        later.imu = false;
        later.port = 31000;
        QCOMPARE(written({sample(5), sample(6), later}), written({later, sample(6)}));
    }

    void roundTrip()
    {
        VirtualCameraInfos second = sample(109999999);
        second.imu = false;
        second.hdr = 1;
        second.port = 65535;
        const QList<VirtualCameraInfos> records = read(written({sample(100000001), second}) + "\n");
        QCOMPARE(records.size(), 2);
        QCOMPARE(text(records[0]), text(sample(100000001)));
        QCOMPARE(text(records[1]), text(second));
        // 007 comes back as 7.
        QVERIFY(written(read(file("007", object()))).startsWith("{\"7\":"));
        // A serial beyond 31 bits does not survive: it is written whole and read as an int.
        VirtualCameraInfos wide = sample(5);
        wide.leftSerialNumber = 3000000000ull;
        QCOMPARE(quint64{read(written({wide}))[0].leftSerialNumber},
                 static_cast<quint64>(qint64{-1294967296}));
    }

private:
    QTemporaryDir directory;
};

QTEST_GUILESS_MAIN(ConfigurationTest)
#include "configuration_test.moc"
