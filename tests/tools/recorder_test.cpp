// SPDX-License-Identifier: Apache-2.0
// A recording that is being completed while frames still come.
#include "tools/receive/recorder.h"

#include <fcntl.h>
#include <gst/app/gstappsink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QTemporaryDir>
#include <QTest>
#include <array>
#include <future>

#include "sdk/core/glibptr.h"

using namespace receive;
using namespace std::chrono_literals;

namespace {

constexpr std::uint32_t kPeriod = 3000;  // ticks

/// A pipe that takes nothing until it is read.
class FullPipe {
public:
    explicit FullPipe(const std::string& path)
    {
        if (mkfifo(path.c_str(), 0600) == 0) {
            file = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        }
        const std::array<char, 4096> page{};
        while (write(file, page.data(), page.size()) > 0) {
        }
    }
    ~FullPipe() { close(file); }
    FullPipe(const FullPipe&) = delete;
    FullPipe& operator=(const FullPipe&) = delete;

    void drain() const
    {
        std::array<char, 4096> page{};
        while (read(file, page.data(), page.size()) > 0) {
        }
    }

private:
    int file = -1;
};

}  // namespace

class RecorderTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { gst_init(nullptr, nullptr); }

    // What is counted as received is in the file.
    void takesNoFrameWhileTheFileIsCompleted()
    {
        const tq::GObjectPtr<GstElement> encoder(GST_ELEMENT(gst_object_ref_sink(gst_parse_launch(
            "videotestsrc num-buffers=2 ! video/x-raw,width=64,height=48 ! x264enc "
            "tune=zerolatency ! video/x-h264,stream-format=byte-stream ! appsink "
            "name=sink",
            nullptr))));
        const tq::GObjectPtr<GstElement> sink(gst_bin_get_by_name(GST_BIN(encoder.get()), "sink"));
        gst_element_set_state(encoder.get(), GST_STATE_PLAYING);
        const tq::SamplePtr sample(gst_app_sink_pull_sample(GST_APP_SINK(sink.get())));
        gst_element_set_state(encoder.get(), GST_STATE_NULL);
        QVERIFY(sample);

        const QTemporaryDir folder;
        const std::string path = folder.filePath("session.ts").toStdString();
        const FullPipe pipe(path);
        Recorder recorder(path, [](const std::string&) {});
        Frame frame{gst_sample_get_buffer(sample.get()), gst_sample_get_caps(sample.get()), 0};
        QVERIFY(recorder.add(frame, false));
        frame.time += kPeriod;
        QVERIFY(recorder.add(frame, false));

        std::future<bool> complete =
            std::async(std::launch::async, [&recorder] { return recorder.finish(60s); });
        const auto isRefused = [&] {
            frame.time += kPeriod;
            return !recorder.add(frame, false);
        };
        QTRY_VERIFY(isRefused());
        QVERIFY(complete.wait_for(0s) == std::future_status::timeout);
        while (complete.wait_for(1ms) == std::future_status::timeout) {
            pipe.drain();
        }
        QVERIFY(complete.get());
        recorder.stop();
    }
};

QTEST_GUILESS_MAIN(RecorderTest)
#include "recorder_test.moc"
