#include "io/ioerror.h"

namespace tarni::host {

std::string IoError::ToText() const {
  std::string text;
  if (!file.empty()) {
    text += file;
    if (line > 0) {
      text += ':';
      text += std::to_string(line);
    }
    text += ": ";
  } else if (line > 0) {
    text += "line ";
    text += std::to_string(line);
    text += ": ";
  }
  text += message;
  return text;
}

}  // namespace tarni::host
