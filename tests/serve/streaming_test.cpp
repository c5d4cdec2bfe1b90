// A series whose slices are still loading: pictures of what is there, then those of the whole.
#include "apps/serve/client_session.h"
#include "scene/projection.h"
#include "tests/scene/import_test_files.h"
#include "tests/serve/page.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <future>

namespace {

using namespace serve_test;
using import_test::DicomSlice;
using import_test::TempFolder;

constexpr int kSlices = 60;

// A bright block that leaves the volume at no side.
void WriteSeries(const TempFolder& folder) {
    for (int iz = 0; iz < kSlices; ++iz) {
        DicomSlice slice;
        slice.columns = slice.rows = 40;
        slice.row_step = slice.column_step = 1.0;
        slice.position = {0.0, 0.0, 1.0 * iz};
        for (int at = 0; at < 40 * 40; ++at) {
            const bool inside = std::abs(at % 40 - 20) < 12 && std::abs(at / 40 - 20) < 12;
            slice.pixels += import_test::Raw(static_cast<std::uint16_t>(inside ? 2000 + iz : 24));
        }
        slice.Write(folder / std::to_string(1000 + iz));
    }
}

// The viewer without its network. Posted functions run when the test waits for something; the thread that reads goes
// on step by step, from one thing that it tells to the next.
class Desk : public serve::Outbox {
public:
    explicit Desk(const std::string& folder) {
        serve::ViewerOptions options;
        options.inputs = {folder};
        options.catalogue.draw_thumbnails = false;
        options.loading.num_threads = 1;
        m_Viewer = std::make_unique<serve::Viewer>(
            std::move(options), [this](std::function<void()> job) { Post(std::move(job)); }, "token");
        std::promise<std::thread::id> drawing;
        m_Viewer->Drawing().Run([&] { drawing.set_value(std::this_thread::get_id()); });
        m_Drawing = drawing.get_future().get();
        m_Session = m_Viewer->Connect(*this);
    }
    ~Desk() override {
        LetGo();
        m_Viewer->Disconnect(*m_Session);
        m_Viewer.reset();
    }

    void SendText(std::string text) override { texts.push_back(Json::parse(text)); }
    void SendPicture(std::string message) override { m_Pictures.push_back(Unpacked(message)); }
    void Close() override { ADD_FAILURE() << "closed"; }
    std::size_t Backlog() const override { return 0; }

    void Say(const Json& message) { m_Session->OnText(message.dump()); }
    std::string OnlySeries() {
        std::optional<std::string> series;
        Await([&] { return (series = m_Viewer->OnlySeries()).has_value(); });
        return series.value_or("");
    }
    // The reading thread goes on until it has told so many things, and waits with the next.
    void Step(int times) {
        for (; times > 0; --times) {
            {
                const std::lock_guard lock(m_Mutex);
                m_MayGoOn = true;
                m_Changed.notify_all();
            }
            Await([&] { return !m_MayGoOn && m_Waits && m_Posted.empty(); });
        }
    }
    void LetGo() {
        const std::lock_guard lock(m_Mutex);
        m_IsFree = true;
        m_Changed.notify_all();
    }
    // Runs what is posted until then.
    void Await(const std::function<bool()>& condition) {
        std::unique_lock lock(m_Mutex);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!condition() && std::chrono::steady_clock::now() < end) {
            if (m_Posted.empty()) {
                m_Changed.wait_for(lock, std::chrono::milliseconds(20));
                continue;
            }
            const std::function<void()> job = std::move(m_Posted.front());
            m_Posted.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
        ASSERT_TRUE(condition());
    }
    // The next picture, which is shown at once.
    Received NextPicture() {
        Await([&] { return !m_Pictures.empty(); });
        if (m_Pictures.empty()) {
            throw std::runtime_error("no picture has come");
        }
        Received picture = std::move(m_Pictures.front());
        m_Pictures.pop_front();
        Say({{"type", "shown"}, {"id", picture.json["id"]}, {"pane", 0}});
        return picture;
    }
    std::vector<Json> Volumes() const {
        std::vector<Json> volumes;
        std::copy_if(texts.begin(), texts.end(), std::back_inserter(volumes),
                     [](const Json& text) { return text["type"] == "volume"; });
        return volumes;
    }

    std::vector<Json> texts;

private:
    void Post(std::function<void()> job) {
        std::unique_lock lock(m_Mutex);
        m_Posted.push_back(std::move(job));
        m_Changed.notify_all();
        const std::thread::id self = std::this_thread::get_id();
        if (self != m_Test && self != m_Drawing) {
            m_Waits = true;
            m_Changed.notify_all();
            m_Changed.wait(lock, [&] { return m_IsFree || m_MayGoOn; });
            m_MayGoOn = m_Waits = false;
        }
    }

    const std::thread::id m_Test = std::this_thread::get_id();
    std::thread::id m_Drawing;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::deque<std::function<void()>> m_Posted;
    bool m_Waits = false;
    bool m_MayGoOn = false;
    bool m_IsFree = false;
    std::deque<Received> m_Pictures;
    std::unique_ptr<serve::Viewer> m_Viewer;
    std::shared_ptr<serve::ClientSession> m_Session;
};

// Rows of a picture from the front in which something bright is seen.
std::vector<int> BrightRows(const Received& picture) {
    const scene::Picture pixels = Decoded(picture.image);
    std::vector<int> rows;
    for (int y = 0; y < pixels.height; ++y) {
        if ((pixels.At(pixels.width / 2, y) & 255) > 100) {
            rows.push_back(y);
        }
    }
    return rows;
}

TEST(Streaming, ThePictureGrowsWithTheSlicesAndEndsAsTheWholeVolume) {
    const TempFolder folder;
    WriteSeries(folder);
    Desk desk(folder / ".");
    desk.Say({{"type", "open"}, {"series", desk.OnlySeries()}});
    while (desk.Volumes().empty()) {
        desk.Step(1);
    }
    EXPECT_EQ(desk.Volumes()[0]["complete"], false);
    EXPECT_EQ(desk.Volumes()[0]["dims"], Json({40, 40, kSlices}));
    Json scene = Scene(1, "mip");
    scene["window"] = {{"centre", 500}, {"width", 1000}};
    desk.Say(scene);

    // From the feet upwards, more with each step.
    std::size_t before = 0;
    int bottom = 0;
    for (int step = 0; step < 3 && !HasFatalFailure(); ++step) {
        // Slices are taken in a few times a second.
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        desk.Step(12);
        std::vector<int> rows;
        while (rows.size() <= before) {
            const Received picture = desk.NextPicture();
            EXPECT_EQ(picture.json["id"], 1);
            EXPECT_FALSE(picture.json["final"]);
            rows = BrightRows(picture);
        }
        EXPECT_LT(rows.size(), 50U);
        bottom = step == 0 ? rows.back() : bottom;
        EXPECT_NEAR(rows.back(), bottom, 1);
        before = rows.size();
    }
    EXPECT_EQ(desk.Volumes().size(), 1U);

    // All of it, as if it had been read at once.
    desk.LetGo();
    Received last = desk.NextPicture();
    while (!last.json["final"]) {
        last = desk.NextPicture();
    }
    EXPECT_EQ(desk.Volumes().size(), 2U);
    EXPECT_EQ(desk.Volumes().back()["complete"], true);
    EXPECT_GT(BrightRows(last).size(), before + 10);
    scene::VolumeSource source(scene::ImportVolume(folder / "."));
    scene::View view;
    view.width = view.height = 96;
    scene::Projection projection(source, true);
    projection.SetView(scene::MakeCamera(view, source.GetSubject()), view);
    EXPECT_EQ(Decoded(last.image).pixels, scene::Windowed(projection.Draw(), source, {500.0, 1000.0}).pixels);
}

}  // namespace
