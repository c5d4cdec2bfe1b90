// The viewer's server over real sockets: who is let in, and which pictures come.
#include "scene/picture.h"
#include "scene/presets.h"
#include "scene/projection.h"
#include "scene/volume_rendering.h"
#include "tests/serve/page.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>

namespace {

using namespace serve_test;

// What the tool draws of the served file from the front.
scene::Picture DrawnByHand(const Server& server, const std::string& mode, int size) {
    scene::VolumeSource source(scene::ImportVolume(server.VolumePath()));
    scene::View view;
    view.width = view.height = size;
    const scene::Camera camera = scene::MakeCamera(view, source.GetSubject());
    if (mode == "mip") {
        scene::Projection projection(source, true);
        projection.SetView(camera, view);
        const scene::ProjectedPicture picture = projection.Draw();
        return scene::Windowed(picture, source, scene::DefaultWindow(source, picture));
    }
    scene::VolumeRendering rendering(source);
    rendering.SetTransfer(*scene::FindPreset("ct-bone"), true);
    rendering.SetView(camera, {});
    return rendering.Draw({false, 0x102030});
}

TEST(Server, LetsInOnlyWhoHasTheTokenAndComesFromItsOwnPage) {
    const Server server;
    const std::string host = server.Host();
    const std::string wrong = std::string(32, '0');

    // By the link: a cookie and the way to the page.
    const Reply entered = Get(server, "/?token=" + server.Token(), {{"Host", host}});
    EXPECT_EQ(entered.status, 303);
    EXPECT_NE(entered.cookie.find(server.Cookie()), std::string::npos);
    EXPECT_NE(entered.cookie.find("HttpOnly"), std::string::npos);
    EXPECT_NE(entered.cookie.find("SameSite=Strict"), std::string::npos);
    const Reply page = Get(server, "/");
    EXPECT_EQ(page.status, 200);
    EXPECT_NE(page.body.find("<html"), std::string::npos);
    EXPECT_NE(page.policy.find("default-src 'none'"), std::string::npos);
    EXPECT_EQ(Get(server, "/api/series").status, 200);

    // Nothing without it, under another machine's name, or outside of what there is.
    for (const char* const target : {"/", "/www/main.js", "/api/series", "/api/presets", "/api/files/1", "/nothing"}) {
        EXPECT_EQ(Get(server, target, {{"Host", host}}).status, 403) << target;
        const std::string cookie = "a=b; volr_" + std::to_string(server.Port()) + "=" + wrong;
        EXPECT_EQ(Get(server, target, {{"Host", host}, {"Cookie", cookie}}).status, 403) << target;
    }
    EXPECT_EQ(Get(server, "/?token=" + wrong, {{"Host", host}}).status, 403);
    EXPECT_EQ(Get(server, "/", {{"Host", "evil.example:" + std::to_string(server.Port())}, {"Cookie", server.Cookie()}})
                  .status,
              403);
    for (const char* const target :
         {"/www/../routes.cpp", "/www/%2e%2e/x", "//etc/passwd", "/api/series/x/thumbnail.png",
          "/api/presets/ct-bone.png?series=../..", "/api/files/-1"}) {
        EXPECT_EQ(Get(server, target).status, 404) << target;
    }

    // The socket: the right cookie, its own origin, its own name.
    const std::string origin = "http://" + host;
    EXPECT_THROW(Page(server, "", origin, host), std::exception);
    EXPECT_THROW(Page(server, server.Cookie(), "http://evil.example", host), std::exception);
    EXPECT_THROW(Page(server, server.Cookie(), "http://evil.example", "evil.example"), std::exception);
    EXPECT_THROW(Page(server, server.Cookie(), "", host), std::exception);
    EXPECT_NO_THROW(Page(server, server.Cookie(), origin, host));
}

TEST(Server, NamesNothingOfTheDiskUnlessAskedTo) {
    for (const bool show_names : {false, true}) {
        serve::ViewerOptions options;
        options.show_names = show_names;
        const Server server(options);
        const std::string name = std::filesystem::path(server.VolumePath()).filename().string();
        Page page(server);
        page.Open();  // the search has ended
        const std::string listing = Get(server, "/api/series").body;
        EXPECT_EQ(listing.find(name) != std::string::npos, show_names);
        EXPECT_EQ(listing.find(std::filesystem::temp_directory_path().string()), std::string::npos);
    }
}

TEST(Server, PicturesAtRestAreTheTools) {
    const Server server;
    Page page(server);
    page.Open();
    EXPECT_EQ(Decoded(page.FinalPicture(Scene(1, "mip")).image).pixels, DrawnByHand(server, "mip", 96).pixels);
    Json scene = Scene(2, "render");
    scene["preset"] = "ct-bone";
    scene["background"] = "#102030";
    EXPECT_EQ(Decoded(page.FinalPicture(scene).image).pixels, DrawnByHand(server, "render", 96).pixels);
}

TEST(Server, SendsNothingStaleAndOnePictureAtATime) {
    const Server server;
    Page page(server);
    page.Open();
    // A moving hand that lets go, while the page shows nothing.
    constexpr int kLast = 40;
    for (int id = 1; id < kLast; ++id) {
        page.Send(Scene(id, id % 2 == 0 ? "mip" : "render", 5.0 * id, true));
    }
    page.Send(Scene(kLast, "mip", 200.0));
    const Received first = page.Await("picture");
    while (const std::optional<Received> more = page.Receive(700)) {
        EXPECT_FALSE(more->IsPicture()) << "a second picture before the first was shown";
    }
    // What follows is of the newest scene only, up to the final one, and then nothing.
    page.Shown(first);
    Received last = first;
    while (!last.json["final"]) {
        last = page.Await("picture");
        EXPECT_EQ(last.json["id"], kLast);
        page.Shown(last);
    }
    EXPECT_EQ(last.json["id"], kLast);
    while (const std::optional<Received> more = page.Receive(300)) {
        EXPECT_FALSE(more->IsPicture());
    }
}

TEST(Server, APageThatReadsNothingCostsOthersNothing) {
    serve::ViewerOptions options;
    options.most_clients = 3;
    options.budget_ms = 47.0;
    const Server server(options);
    Page silent(server);
    Page lively(server);
    silent.Open();
    lively.Open();
    {
        Page gone(server);
        gone.Open();
        gone.Send(Scene(1, "render", 10.0));
    }
    for (int id = 1; id <= 60; ++id) {
        silent.Send(Scene(id, "render", 3.0 * id, true));
        lively.Send(Scene(id, "render", 3.0 * id, true));
        const Received picture = lively.Await("picture");
        lively.Shown(picture);
    }
    EXPECT_TRUE(lively.FinalPicture(Scene(61, "render", 7.0)).json["final"]);

    // Room for the third again, none for a fourth.
    Page third(server);
    const Json hello = third.Await("hello").json;
    EXPECT_EQ(hello["limits"]["clients"], 3);
    EXPECT_EQ(hello["budgetMs"], 47.0);
    Page fourth(server);
    const Json refusal = fourth.Await("error").json;
    EXPECT_TRUE(refusal["fatal"]);
    EXPECT_THROW(fourth.Await("hello"), std::exception);
}

TEST(Server, AnswersPicksExportsAndNonsense) {
    const Server server;
    Page page(server);
    const Json volume = page.Open();
    EXPECT_EQ(volume["dims"], Json({72, 72, 60}));
    const Json pick = {{"type", "pick"}, {"request", 3}, {"pane", 0}, {"x", 48}, {"y", 48}, {"vessel", true}};
    page.Send(pick);
    EXPECT_EQ(page.Await("error").json["request"], 3);  // nothing is shown yet
    page.FinalPicture(Scene(1, "mip"));
    page.Send(pick);
    const Json picked = page.Await("picked").json;
    EXPECT_EQ(picked["outcome"], "shown");
    EXPECT_EQ(picked["voxel"].size(), 3U);
    EXPECT_TRUE(picked.contains("vessel"));

    // A picture of another size, fetched once.
    page.Send({{"type", "export"}, {"request", 4}, {"kind", "png"}, {"pane", 0}, {"width", 120}, {"height", 64}});
    const Json file = page.Await("file").json;
    const Reply download = Get(server, file["url"]);
    EXPECT_EQ(download.body.size(), file["bytes"]);
    EXPECT_EQ(Decoded(download.body).width, 120);
    EXPECT_EQ(Get(server, file["url"]).status, 404);

    page.Send({{"type", "export"},
               {"request", 5},
               {"kind", "csv"},
               {"points", {{{"label", "=1+1"}, {"position", {1, 2, 3.5}}, {"description", "a \"b\", c"}}}}});
    EXPECT_EQ(Get(server, page.Await("file").json["url"]).body,
              "label,x_lps_mm,y_lps_mm,z_lps_mm,description\r\n\"'=1+1\",1.000,2.000,3.500,\"a \"\"b\"\", c\"\r\n");

    // Wrong messages change nothing, until there are too many.
    Json wrong = Scene(2, "mip");
    wrong["camera"]["zoom"] = 1e9;
    for (int i = 0; i < 98; ++i) {
        page.Send(wrong);
        EXPECT_NE(page.Await("error").json["text"].get<std::string>().find("camera.zoom"), std::string::npos);
    }
    EXPECT_TRUE(page.FinalPicture(Scene(2, "mip", 30.0)).json["final"]);
    page.SendText("[[[[");
    EXPECT_FALSE(page.Await("error").json.contains("fatal"));
    EXPECT_TRUE(page.Await("error").json["fatal"]);
    EXPECT_THROW(page.Await("hello"), std::exception);
}

// Movies that are being made, in the folder for temporary files.
std::ptrdiff_t NumMovies(const std::filesystem::path& folder) {
    const std::filesystem::directory_iterator all(folder);
    return std::count_if(begin(all), end(all), [](const auto& entry) {
        return entry.path().filename().string().find("movie") != std::string::npos;
    });
}

// A number of 32 bits in an MP4 file, so many bytes behind the name of a box.
std::uint32_t Field(const std::string& movie, const std::string& box, std::size_t offset) {
    const std::size_t at = movie.find(box);
    std::uint32_t number = 0;
    for (std::size_t i = 0; at != std::string::npos && i < 4; ++i) {
        number = number << 8 | static_cast<unsigned char>(movie.at(at + box.size() + offset + i));
    }
    return number;
}

TEST(Server, MakesMoviesAndLeavesNothingOfThoseThatNobodyWants) {
    const std::filesystem::path folder = testing::TempDir() + "/movies_of_test";
    std::filesystem::create_directories(folder);
    ::setenv("TMPDIR", folder.c_str(), 1);
    const auto await_no_movie = [&] {
        for (int i = 0; i < 3000 && NumMovies(folder) > 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(NumMovies(folder), 0);
    };
    {
        const Server server;
        Page page(server);
        page.Open();
        page.FinalPicture(Scene(1, "mip"));
        Json movie = {{"type", "export"}, {"request", 1}, {"kind", "movie"},      {"pane", 0},       {"width", 80},
                      {"height", 64},     {"frames", 13}, {"framesPerSecond", 5}, {"annotate", true}};
        page.Send(movie);
        std::optional<Received> answer;
        for (double fraction = 0.0; (answer = page.Receive()) && answer->json["type"] == "progress";) {
            EXPECT_GE(answer->json["fraction"], fraction);
            fraction = answer->json["fraction"];
        }
        ASSERT_TRUE(answer);
        if (answer->json["type"] == "error") {
            EXPECT_NE(answer->json["text"].get<std::string>().find("without movies"), std::string::npos);
            GTEST_SKIP() << "built without movies";
        }
        const std::string file = Get(server, answer->json["url"]).body;
        EXPECT_EQ(file.substr(4, 4), "ftyp");
        EXPECT_EQ(Field(file, "stsz", 8), 13U);  // frames
        const std::uint32_t duration = Field(file, "mvhd", 16), units_per_second = Field(file, "mvhd", 12);
        EXPECT_NEAR(static_cast<double>(duration) / units_per_second, 13 / 5.0, 0.05);
        await_no_movie();

        // Too many frames, or too many movies: one line each.
        movie["request"] = 2;
        movie["frames"] = 721;
        page.Send(movie);
        const Json refusal = page.Await("error").json;
        EXPECT_EQ(refusal["request"], 2);
        EXPECT_EQ(refusal["text"].get<std::string>().find("frames: "), 0U) << refusal["text"];
        movie["frames"] = 720;
        for (int request = 3; request < 8; ++request) {
            movie["request"] = request;
            page.Send(movie);
        }
        const Json busy = page.Await("error").json;
        EXPECT_EQ(busy["request"], 7);
        EXPECT_EQ(busy["text"].get<std::string>().find('\n'), std::string::npos);

        // All of them cancelled while the first is made.
        while (page.Await("progress").json["fraction"] == 0.0) {
        }
        EXPECT_GT(NumMovies(folder), 0);
        for (int request = 3; request < 7; ++request) {
            page.Send({{"type", "cancel"}, {"request", request}});
        }
        await_no_movie();

        // A page that goes.
        Page gone(server);
        gone.Open();
        gone.FinalPicture(Scene(1, "render"));
        gone.Send(movie);
        while (gone.Await("progress").json["fraction"] == 0.0) {
        }
        EXPECT_GT(NumMovies(folder), 0);
    }
    EXPECT_EQ(NumMovies(folder), 0);
    ::unsetenv("TMPDIR");
    std::filesystem::remove_all(folder);
}

TEST(Server, TissuesAreListedAndLookAsTheyAreSet) {
    const Server server({}, true);
    Page page(server);
    const Json volume = page.Open();
    ASSERT_EQ(volume["tissues"].size(), 6U);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(volume["tissues"][static_cast<std::size_t>(i)]["label"], i + 1);
    }
    int id = 0;
    const auto picture = [&](const std::string& mode, const std::vector<Json>& tissues) {
        Json scene = Scene(++id, mode);
        scene["preset"] = "ct-bone";
        scene["tissues"] = tissues;
        return Decoded(page.FinalPicture(scene).image).pixels;
    };
    const Json bone = {{"label", 2}, {"colour", "#20C040"}, {"opacity", 1.0}};
    Json faint = bone, hidden = bone;
    faint["opacity"] = 0.2;
    hidden["visible"] = false;

    // Every setting of one label has its own picture; a label that no voxel bears has none.
    const auto plain = picture("render", {});
    const std::set<std::vector<std::uint32_t>> looks = {plain, picture("render", {bone}), picture("render", {faint}),
                                                        picture("render", {hidden})};
    EXPECT_EQ(looks.size(), 4U);
    EXPECT_EQ(picture("render", {{{"label", 77}, {"visible", false}}}), plain);
    EXPECT_EQ(picture("render", {}), plain);
    // Green bone: no pixel is as red as it is green.
    std::size_t green = 0;
    for (const std::uint32_t p : picture("render", {bone})) {
        green += (p >> 8 & 255) > (p >> 16 & 255) + 40 ? 1 : 0;
    }
    EXPECT_GT(green, 100U);
    // A projection knows only whether a tissue is there.
    const auto projected = picture("mip", {});
    EXPECT_EQ(picture("mip", {bone}), projected);
    EXPECT_NE(picture("mip", {hidden}), projected);

    for (const Json& wrong : {Json(-1), Json(65536), Json(1.5), Json("2")}) {
        Json scene = Scene(++id, "render");
        scene["tissues"] = {{{"label", wrong}}};
        page.Send(scene);
        EXPECT_NE(page.Await("error").json["text"].get<std::string>().find("label"), std::string::npos) << wrong;
    }
}

}  // namespace
