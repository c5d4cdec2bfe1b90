// Stands in for the writer where there is no encoder.
#include "scene/error.h"
#include "scene/movie/movie_writer.h"

namespace scene {

class MovieWriter::Encoder {};

bool CanWriteMovies() {
    return false;
}

MovieWriter::MovieWriter(const std::string& path, int, int, int) {
    throw Error(ErrorKind::kFailed, path, "this program was built without movies", "write numbered pictures instead");
}
MovieWriter::~MovieWriter() = default;
void MovieWriter::Add(const Picture&) {}
void MovieWriter::Finish() {}

}  // namespace scene
