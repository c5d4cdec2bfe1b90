#include "apps/serve/routes.h"

#include "apps/serve/embedded_files.h"
#include "apps/serve/server_messages.h"

namespace serve {

namespace {

constexpr std::string_view kJson = "application/json";

Answer Plain(int status, std::string text) {
    Answer answer;
    answer.status = status;
    answer.body = std::move(text) + "\n";
    return answer;
}

Answer Bytes(std::string_view type, std::string bytes) {
    Answer answer;
    answer.type = type;
    answer.body = std::move(bytes);
    return answer;
}

Answer NotFound() {
    return Plain(404, "not found");
}

Answer PageFile(std::string_view name) {
    const std::string_view file = EmbeddedFile(name);
    return file.empty() ? NotFound() : Bytes(ContentType(name), std::string(file));
}

Answer PictureOrNothing(const std::shared_ptr<const std::string>& file) {
    return file == nullptr ? NotFound() : Bytes("image/png", *file);
}

// What stands between a beginning and an end of a path; nothing when it does not have both.
std::optional<std::string> Between(std::string_view path, std::string_view begin, std::string_view end) {
    const bool fits = path.size() > begin.size() + end.size() && path.starts_with(begin) && path.ends_with(end);
    return fits ? std::optional(std::string(path.substr(begin.size(), path.size() - begin.size() - end.size())))
                : std::nullopt;
}

Answer PresetPicture(const std::string& preset, std::string_view query, Viewer& viewer) {
    const std::optional<std::string> id = Between(query, "series=", "");
    const std::shared_ptr<OpenedSeries> series = id ? viewer.Store().Find(*id) : nullptr;
    const bool known = series != nullptr && scene::FindPreset(preset) != nullptr;
    return known ? PictureOrNothing(viewer.Presets().Find(series, preset)) : NotFound();
}

Answer Download(std::string_view number, Viewer& viewer) {
    std::optional<ShelvedFile> file = viewer.Files().Take(number);
    if (!file) {
        return NotFound();
    }
    Answer answer = Bytes(file->type, std::move(file->bytes));
    answer.headers.emplace_back("Content-Disposition", "attachment; filename=\"" + file->name + "\"");
    return answer;
}

Answer ByPath(std::string_view path, std::string_view query, Viewer& viewer) {
    if (path == "/") {
        return PageFile("index.html");
    }
    if (const auto name = Between(path, "/www/", "")) {
        return PageFile(*name);
    }
    if (path == "/api/series") {
        return Bytes(kJson, SeriesJson(viewer.Catalogue().List(), viewer.Options().show_names));
    }
    if (const auto id = Between(path, "/api/series/", "/thumbnail.png")) {
        return PictureOrNothing(viewer.Catalogue().Thumbnail(*id));
    }
    if (path == "/api/presets") {
        return Bytes(kJson, PresetsJson());
    }
    if (const auto name = Between(path, "/api/presets/", ".png")) {
        return PresetPicture(*name, query, viewer);
    }
    if (const auto number = Between(path, "/api/files/", "")) {
        return Download(*number, viewer);
    }
    return NotFound();
}

}  // namespace

Answer AnswerTo(const Request& request, const AccessRules& access, Viewer& viewer) {
    const std::string_view target = request.target;
    const std::size_t question = std::min(target.find('?'), target.size());
    const std::string_view path = target.substr(0, question);
    const std::string_view query = question < target.size() ? target.substr(question + 1) : std::string_view();
    if (!access.IsOwnHost(request.host)) {
        return Plain(403, "forbidden");
    }
    if (path == "/" && access.IsToken(TokenOfTarget(target))) {
        Answer answer = Plain(303, "see /");
        answer.headers = {{"Location", "/"}, {"Set-Cookie", access.Cookie()}};
        return answer;
    }
    if (!access.HasToken(request.cookie)) {
        return Plain(403, "forbidden");
    }
    if (request.method != "GET" && request.method != "HEAD") {
        return Plain(405, "only GET");
    }
    return ByPath(path, query, viewer);
}

bool MayConnect(const Request& request, const AccessRules& access) {
    return request.method == "GET" && request.target == "/socket" && access.IsOwnOrigin(request.origin, request.host) &&
           access.HasToken(request.cookie);
}

}  // namespace serve
