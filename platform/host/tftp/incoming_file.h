// A file that replaces its destination only once all of it is there.
#ifndef RUMA_HOST_TFTP_INCOMING_FILE_H
#define RUMA_HOST_TFTP_INCOMING_FILE_H

#include "base/unique_fd.h"

#include <string>
#include <sys/types.h>

namespace ruma {

// The directory of the destination is opened once, without following a symbolic link anywhere on
// its path, and all names are made, linked and renamed in that very directory, whatever stands at
// its path by then. The content is collected in a file without a name where the file system can do
// that, else in a file beside the destination, ".tftp-", the process id, "-" and six random
// characters; in both cases with the mode 0600. A name like that is needed for the last step, too.
// Without commit() the destination is left alone and nothing else remains, unless the process ends
// while the content has a name, which in the last step only a kill can bring about: then the next
// that receives into the directory removes it, as no process of that id is there any more.
class IncomingFile {
  public:
    IncomingFile() = default;
    IncomingFile(const IncomingFile &) = delete;
    IncomingFile &operator=(const IncomingFile &) = delete;
    ~IncomingFile();

    // Prepares to replace or create `destination`. A file that is replaced hands its permission
    // bits on, a new one has 0600; a symbolic link is itself replaced. Returns 0 or an errno:
    // EISDIR for a directory, EINVAL for anything else that is no file, ELOOP for a link on the way
    // to it.
    int open(const std::string &destination);

    // Where to write the content.
    int descriptor() const { return file_.get(); }

    // Makes the content durable, moves it to the destination and makes that durable too. Returns 0
    // or an errno, after the last step's with the destination already replaced.
    int commit();

  private:
    int open_named();
    int give_name();
    int take_place();
    UniqueFd readable_directory() const; // of its own offset; none when it may not be read
    int sync_directory() const;

    UniqueFd directory_;
    std::string name_;
    std::string temporary_; // empty while the content has no name
    mode_t mode_ = 0600;
    UniqueFd file_;
};

} // namespace ruma

#endif
