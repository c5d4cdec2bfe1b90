// A full turn of what a page looks at, as a movie file.
#pragma once

#include "apps/serve/client_scene.h"
#include "apps/serve/protocol.h"
#include "scene/movie/movie_writer.h"

#include <memory>
#include <optional>
#include <string>

namespace serve {

// Draws one frame at a time, so that others get their turns in between. For the drawing thread.
class MovieExport {
public:
    MovieExport(std::shared_ptr<const SceneState> state, ExportMessage message);
    ~MovieExport();
    MovieExport(const MovieExport&) = delete;
    MovieExport& operator=(const MovieExport&) = delete;

    // Draws the next frame; what is cancelled can be called again. Throws Error and the host's cancellation.
    void DrawNext(ClientScene& scene);
    bool IsComplete() const { return m_NumDrawn == m_Message.frames; }
    double Fraction() const { return static_cast<double>(m_NumDrawn) / m_Message.frames; }
    // The file's bytes, once it is complete. Throws Error.
    std::string Finish();

private:
    SceneState StateOfFrame(int frame) const;

    std::shared_ptr<const SceneState> m_State;
    ExportMessage m_Message;
    std::string m_Folder;  // temporary
    std::unique_ptr<scene::MovieWriter> m_Writer;
    std::optional<scene::DisplayWindow> m_Window;  // the first frame's holds for the whole turn
    int m_NumDrawn = 0;
};

}  // namespace serve
