#include <ruma/tftp.h>

#include "tftp/incoming_file.h"
#include "tftp/local_result.h"
#include "unique_fd.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <curl/curl.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using ruma::local_result;
using Clock = std::chrono::steady_clock;

constexpr int tftp_port = 69;
constexpr int server_error = ruma::tftp_server_error;
constexpr long block_size = 1468; // fills an Ethernet frame; a server may answer with less
constexpr std::size_t max_remote_name = 400; // a request with its options has 512 bytes

std::chrono::seconds timeout{20};
char server_address[INET_ADDRSTRLEN]; // empty until tftp_connect
int server_port = tftp_port;

using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;

// One transfer, as libcurl's callbacks see it.
struct Transfer {
    int descriptor = -1;
    int local_error = 0; // errno of this side's file
    bool began = false;  // content has been moved
    curl_off_t progress = 0;
    Clock::time_point last_progress = Clock::now();
    bool timed_out = false;
};

std::size_t write_file(char *data, std::size_t, std::size_t size, void *context) {
    auto &transfer = *static_cast<Transfer *>(context);
    transfer.began = true;
    std::size_t done = 0;
    while (done < size) {
        const ssize_t written = write(transfer.descriptor, data + done, size - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            transfer.local_error = written < 0 ? errno : EIO;
            return done;
        }
        done += static_cast<std::size_t>(written);
    }
    return size;
}

std::size_t read_file(char *data, std::size_t, std::size_t size, void *context) {
    auto &transfer = *static_cast<Transfer *>(context);
    transfer.began = true;
    ssize_t count = 0;
    do {
        count = read(transfer.descriptor, data, size);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        transfer.local_error = errno;
        return CURL_READFUNC_ABORT;
    }
    return static_cast<std::size_t>(count);
}

// libcurl's own limits either cut a long transfer or do not notice a server that stalls in the
// middle of one, so the silence is measured here; libcurl calls this about once a second at least.
int check_progress(void *context, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
    auto &transfer = *static_cast<Transfer *>(context);
    const curl_off_t progress = received + sent;
    const auto now = Clock::now();
    if (progress != transfer.progress) {
        transfer.progress = progress;
        transfer.last_progress = now;
    }
    transfer.timed_out = now - transfer.last_progress >= timeout;
    return transfer.timed_out ? 1 : 0;
}

// What libcurl says about an error that the server reported, or about this side's network.
struct Outcome {
    CURLcode code;
    int result;
    const char *text;
};

constexpr Outcome outcomes[] = {
    {CURLE_TFTP_NOTFOUND, -(server_error + ENOENT), "The server has no such file"},
    {CURLE_TFTP_PERM, -(server_error + EACCES), "The server refuses access"},
    {CURLE_REMOTE_DISK_FULL, -(server_error + ENOSPC), "The server's disk is full"},
    {CURLE_REMOTE_FILE_EXISTS, -(server_error + EEXIST), "The server has the file already"},
    {CURLE_TFTP_NOSUCHUSER, -(server_error + EPERM), "The server knows no such user"},
    {CURLE_TFTP_ILLEGAL, -(server_error + EPROTO), "The server refuses the request"},
    {CURLE_TFTP_UNKNOWNID, -(server_error + EPROTO), "The server refuses the request"},
    {CURLE_OPERATION_TIMEDOUT, -ETIMEDOUT, "The server did not answer in time"},
    {CURLE_COULDNT_CONNECT, -ETIMEDOUT, "The server did not answer in time"},
    {CURLE_OUT_OF_MEMORY, -ENOMEM, "Out of memory"},
};

int result_of(CURLcode code, const Transfer &transfer) {
    if (code == CURLE_OK)
        return 0;
    if (transfer.local_error != 0)
        return local_result(transfer.local_error);
    if (transfer.timed_out)
        return -ETIMEDOUT;
    for (const Outcome &outcome : outcomes) {
        if (outcome.code == code)
            return outcome.result;
    }
    return -EIO;
}

// Not at library load: a process that never transfers pays nothing, and the first transfer comes
// after the worker's fork.
bool prepare_library() {
    static const CURLcode result = curl_global_init(CURL_GLOBAL_NOTHING);
    return result == CURLE_OK;
}

// Options that every transfer shares.
void prepare(CURL *curl, const std::string &url, Transfer &transfer) {
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "tftp");
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TFTP_BLKSIZE, block_size);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, static_cast<long>(timeout.count()));
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, check_progress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &transfer);
}

// Tells the results that the options of the request may have caused: a server's refusal of them,
// which libcurl reports as an abort by its user, and libcurl's own refusal of an empty file whose
// size a server announces.
bool may_be_the_options(CURLcode code) {
    return code == CURLE_ABORTED_BY_CALLBACK || code == CURLE_TFTP_ILLEGAL;
}

// Runs a transfer, whose direction is set already, of the file that the server calls `remote`.
int run(CURL *curl, const char *remote, Transfer &transfer) {
    const std::size_t length = std::strlen(remote);
    if (length == 0)
        return -EINVAL;
    if (length > max_remote_name)
        return -ENAMETOOLONG;
    // Escaped whole, slashes and all: the server sees the name byte for byte.
    const std::unique_ptr<char, decltype(&curl_free)> escaped(
        curl_easy_escape(curl, remote, static_cast<int>(length)), curl_free);
    if (!escaped)
        return -ENOMEM;
    const std::string url = std::string("tftp://") + server_address + ":" +
                            std::to_string(server_port) + "/" + escaped.get();
    prepare(curl, url, transfer);
    CURLcode code = curl_easy_perform(curl);
    if (may_be_the_options(code) && !transfer.timed_out && !transfer.began) {
        curl_easy_setopt(curl, CURLOPT_TFTP_NO_OPTIONS, 1L);
        transfer.last_progress = Clock::now();
        code = curl_easy_perform(curl);
    }
    return result_of(code, transfer);
}

int get(const char *remote, const char *local) {
    Handle curl(prepare_library() ? curl_easy_init() : nullptr, curl_easy_cleanup);
    if (!curl)
        return -ENOMEM;
    ruma::IncomingFile file;
    if (const int error = file.open(local))
        return local_result(error);
    Transfer transfer;
    transfer.descriptor = file.descriptor();
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, write_file);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &transfer);
    const int result = run(curl.get(), remote, transfer);
    return result != 0 ? result : local_result(file.commit());
}

int put(const char *path) {
    Handle curl(prepare_library() ? curl_easy_init() : nullptr, curl_easy_cleanup);
    if (!curl)
        return -ENOMEM;
    const ruma::UniqueFd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0)
        return local_result(errno);
    if (!S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? -EISDIR : -EINVAL;
    Transfer transfer;
    transfer.descriptor = file.get();
    curl_easy_setopt(curl.get(), CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_READFUNCTION, read_file);
    curl_easy_setopt(curl.get(), CURLOPT_READDATA, &transfer);
    curl_easy_setopt(curl.get(), CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(status.st_size));
    return run(curl.get(), path, transfer);
}

} // namespace

extern "C" {

int tftp_timeout_set(int seconds) {
    if (seconds <= 0)
        return -EINVAL;
    timeout = std::chrono::seconds(seconds);
    return 0;
}

int tftp_connect(const char *server, int port) {
    in_addr address{};
    if (server == nullptr || inet_pton(AF_INET, server, &address) != 1)
        return -EINVAL;
    if (port != -1 && (port < 1 || port > 65535))
        return -EINVAL;
    inet_ntop(AF_INET, &address, server_address, sizeof server_address);
    server_port = port == -1 ? tftp_port : port;
    return 0;
}

int tftp_get2(const char *remote, const char *local, int flags) {
    if (remote == nullptr || local == nullptr || flags != 0)
        return -EINVAL;
    if (server_address[0] == '\0')
        return -EDESTADDRREQ;
    try {
        return get(remote, local);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

int tftp_put(const char *file, int flags) {
    if (file == nullptr || flags != 0)
        return -EINVAL;
    if (server_address[0] == '\0')
        return -EDESTADDRREQ;
    try {
        return put(file);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

const char *tftp_strerror(int result) {
    static char text[128];
    for (const Outcome &outcome : outcomes) {
        if (outcome.result == result)
            return outcome.text;
    }
    if (result >= 0)
        return "Success";
    // All errors that the server can report are in the table.
    if (result < -server_error)
        return "Unknown error";
    return strerror_r(-result, text, sizeof text);
}
}
