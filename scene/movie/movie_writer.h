// Pictures as a movie file.
#pragma once

#include "scene/picture.h"

#include <memory>
#include <string>

namespace scene {

// Whether this program can write movies; else every MovieWriter throws.
bool CanWriteMovies();

// Writes H.264 in an MP4 file that plays in any browser while it is still arriving. Takes one picture after the other
// and keeps only the few that the encoder works on, which it does on threads of its own while the next is drawn. The
// same pictures give the same file on every machine of one kind. Not for several threads at once. Destroyed before
// Finish, it leaves nothing behind.
class MovieWriter {
public:
    // All pictures are width x height pixels; where one of these is odd the movie has one more, since its colours are
    // stored for squares of four pixels. Throws Error when the file cannot be written there or there is no encoder.
    MovieWriter(const std::string& path, int width, int height, int frames_per_second);
    ~MovieWriter();
    MovieWriter(const MovieWriter&) = delete;
    MovieWriter& operator=(const MovieWriter&) = delete;

    // Alpha is not looked at. Throws Error.
    void Add(const Picture& picture);
    // Lets the file appear. Throws Error.
    void Finish();

private:
    class Encoder;
    std::unique_ptr<Encoder> m_Encoder;
};

}  // namespace scene
