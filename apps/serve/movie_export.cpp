#include "apps/serve/movie_export.h"

#include "scene/annotation.h"
#include "scene/error.h"
#include "scene/output_file.h"

#include <stdlib.h>
#include <cmath>
#include <filesystem>
#include <numbers>

namespace serve {

namespace {

constexpr std::size_t kLargestMovie = std::size_t{1} << 30;

std::string TemporaryFolder() {
    std::error_code error;
    std::string path = (std::filesystem::temp_directory_path(error) / "volr-movie-XXXXXX").string();
    if (error || ::mkdtemp(path.data()) == nullptr) {
        throw scene::Error(scene::ErrorKind::kFailed, "movie", "no temporary file can be written",
                           "free space or set TMPDIR");
    }
    return path;
}

}  // namespace

MovieExport::MovieExport(std::shared_ptr<const SceneState> state, ExportMessage message)
    : m_State(std::move(state)), m_Message(std::move(message)), m_Window(m_State->window) {}

MovieExport::~MovieExport() {
    m_Writer.reset();
    if (!m_Folder.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_Folder, ignored);
    }
}

// The viewer walks to his right around the picture's vertical.
SceneState MovieExport::StateOfFrame(int frame) const {
    SceneState state = *m_State;
    state.window = m_Window;
    const scene::Vec3 up = -scene::Normalised(state.camera.down);
    state.camera.right = scene::Rotated(state.camera.right, up, 2.0 * std::numbers::pi * frame / m_Message.frames);
    return state;
}

void MovieExport::DrawNext(ClientScene& scene) {
    if (m_Writer == nullptr) {
        m_Folder = m_Folder.empty() ? TemporaryFolder() : m_Folder;
        m_Writer = std::make_unique<scene::MovieWriter>(m_Folder + "/turn.mp4", m_Message.width, m_Message.height,
                                                        static_cast<int>(std::lround(m_Message.frames_per_second)));
    }
    const SceneState state = StateOfFrame(m_NumDrawn);
    const Pane pane = {state.panes[static_cast<std::size_t>(m_Message.pane)].mode, m_Message.width, m_Message.height};
    DrawnPicture drawn = scene.Draw(state, pane, FinalEffort());
    m_Window = drawn.window;
    if (m_Message.annotate) {
        scene::Annotate(drawn.picture, scene.CameraOf(state, pane));
    }
    m_Writer->Add(drawn.picture);
    ++m_NumDrawn;
}

std::string MovieExport::Finish() {
    m_Writer->Finish();
    return scene::ReadFile(m_Folder + "/turn.mp4", kLargestMovie);
}

}  // namespace serve
