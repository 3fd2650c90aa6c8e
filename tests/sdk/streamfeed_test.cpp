// SPDX-License-Identifier: Apache-2.0
// The feed of a media: for how long a first picture is waited for.
#include "sdk/stream/streamfeed.h"

#include <QTest>
#include <vector>

using tq::stream::FrameRecord;
using tq::stream::StreamFeed;
using tq::stream::VideoFormat;

namespace {

constexpr int kWidth = 32;
constexpr int kHeight = 16;

VideoFormat format(int fps)
{
    return {kWidth, kHeight, fps, 1000, fps};
}

void ingestFrame(StreamFeed& feed)
{
    const std::vector<std::uint8_t> grey(std::size_t{kWidth} * kHeight * 2, 128);
    feed.ingestFrame(grey.data(), 1, {});
}

/// A media that is made and plays to nobody yet.
class Media {
public:
    GstElement* pipeline() const { return own.get(); }

    /// What went wrong since the last call; empty if nothing did.
    QByteArray error() const
    {
        const tq::GObjectPtr<GstBus> bus(gst_element_get_bus(own.get()));
        const tq::MessagePtr message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
        tq::Failure failure;
        if (message)
            gst_message_parse_error(message.get(), failure.place(), nullptr);
        return failure.text("");
    }

private:
    const tq::GObjectPtr<GstElement> own{GST_ELEMENT(gst_object_ref_sink(gst_parse_launch(
        "appsrc name=video ! identity name=encoder ! fakesink appsrc name=data ! fakesink",
        nullptr)))};
};

}  // namespace

class StreamFeedTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { gst_init(nullptr, nullptr); }

    void waitsForPictures()
    {
        StreamFeed feed(format(30), GST_VIDEO_FORMAT_I420, {});
        QCOMPARE(feed.waitingInterval().count(), 250);
        const Media media;
        feed.attach(media.pipeline());
        QVERIFY(feed.hasPictures());
        const auto wait = [&](int times) {
            while (times-- > 0)
                feed.waitForPictures(media.pipeline());
            return media.error();
        };
        QCOMPARE(wait(3), QByteArray());
        ingestFrame(feed);
        QCOMPARE(wait(3), QByteArray());
        QVERIFY(feed.hasPictures());
        QCOMPARE(wait(1), QByteArray("There are no pictures"));
        QVERIFY(!feed.hasPictures());
        ingestFrame(feed);
        QVERIFY(feed.hasPictures());
    }

    // It has its first frame.
    void waitsForNothingWhilePlaying()
    {
        StreamFeed feed(format(30), GST_VIDEO_FORMAT_I420, {});
        const Media media;
        feed.attach(media.pipeline());
        feed.setPlaying(media.pipeline(), true);
        for (int times = 0; times < 10; ++times)
            feed.waitForPictures(media.pipeline());
        QCOMPARE(media.error(), QByteArray());
        feed.setPlaying(media.pipeline(), false);
        QVERIFY(feed.hasPictures());
    }

    // What waits when the last viewer goes is counted, too.
    void countsWhatIsLeftWaiting()
    {
        StreamFeed feed(format(30), GST_VIDEO_FORMAT_I420, {});
        const Media media;
        for (const bool detached : {false, true}) {
            feed.attach(media.pipeline());
            feed.setPlaying(media.pipeline(), true);
            for (int frames = 0; frames < 3; ++frames)
                ingestFrame(feed);
            detached ? feed.detach(media.pipeline()) : feed.setPlaying(media.pipeline(), false);
        }
        QCOMPARE(feed.statistics().framesIngested, std::uint64_t{6});
        QCOMPARE(feed.statistics().framesUnwanted, std::uint64_t{6});
    }

    // Four of them are more than a period.
    void waitsLongerForSlowStreams()
    {
        const StreamFeed feed(format(1), GST_VIDEO_FORMAT_I420, {});
        QCOMPARE(feed.waitingInterval().count(), 375);
    }
};

QTEST_GUILESS_MAIN(StreamFeedTest)
#include "streamfeed_test.moc"
