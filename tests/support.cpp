#include "support.hpp"

#include <pthread.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

namespace velmora::test
{

namespace
{

/** "Line: 12 [TEXT]" becomes "TEXT", "LEVEL: function.12: text" becomes
 *  "LEVEL function: text", where that number in the text is "#"; what has no
 *  such form stays as it is. */
std::string withoutSourceLine(const std::string& line)
{
    const std::size_t bracket = line.find(" [");
    if (line.starts_with("Line: ") && line.ends_with("]") &&
        bracket != std::string::npos)
    {
        return line.substr(bracket + 2, line.size() - bracket - 3);
    }
    const std::size_t level = line.find(": ");
    const std::size_t dot = line.find('.', level);
    const std::size_t colon = line.find(": ", dot);
    if (colon == std::string::npos ||
        line.find_first_not_of("0123456789", dot + 1) != colon)
    {
        return line;
    }
    std::string text = line.substr(colon);
    const std::string number = line.substr(dot + 1, colon - dot - 1);
    if (const auto again = text.find("[" + number + "]"); again < text.size())
    {
        text.replace(again + 1, number.size(), "#");
    }
    return line.substr(0, level) + " " +
           line.substr(level + 2, dot - level - 2) + text;
}

} // namespace

Lines logOf(const std::function<void()>& work, int fileDescriptor)
{
    const int memory = memfd_create("log", MFD_CLOEXEC);
    const int saved = dup(fileDescriptor);
    dup2(memory, fileDescriptor);
    const auto restore = [&]
    {
        dup2(saved, fileDescriptor);
        close(saved);
    };
    try
    {
        work();
    }
    catch (...)
    {
        restore();
        close(memory);
        throw;
    }
    restore();
    const std::string log = readFile("/proc/self/fd/" + std::to_string(memory));
    close(memory);
    if (const char* kept = std::getenv("VELMORA_TEST_LOG"))
    {
        std::ofstream(kept, std::ios::app) << log;
    }
    std::istringstream text(log);

    Lines lines;
    for (std::string line; std::getline(text, line);)
    {
        lines.push_back(withoutSourceLine(line));
    }
    return lines;
}

std::size_t openFileDescriptors()
{
    return static_cast<std::size_t>(std::distance(
        fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

std::string readFile(const fs::path& path)
{
    // What a process has below /proc may go meanwhile, and must not throw.
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

void writeFile(const fs::path& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

int run(const std::string& command)
{
    const int status =
        std::system(("(" + command + ") >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

fs::path keys()
{
    // A copy, so that its gpg agent is not that of another sandbox.
    static const Scratch copy;
    static const int copied =
        run("cp -r \"$VELMORA_TEST_KEYS\" " + (copy / "keys").string());
    EXPECT_EQ(copied, 0);
    return copy / "keys";
}

void pack(const std::string& arguments)
{
    ASSERT_EQ(run(std::getenv("VELMORA_PACK") + (" " + arguments)), 0)
        << arguments;
}

void sign(const fs::path& directory)
{
    ASSERT_EQ(run("gpg --homedir " + (keys() / "gnupg").string() +
                  " --batch --yes --detach-sign -o " +
                  (directory / "package.xml.sign").string() + " " +
                  (directory / "package.xml").string()),
              0);
}

void makePackage(const fs::path& directory, const PackageText& text)
{
    fs::create_directories(directory / "payload");
    writeFile(directory / "payload/image", text.payload);
    writeFile(directory / "package.xml",
              "<Package><Device componentID=\"113440\"/>"
              "<SoftwareComponent hashAlgorithm=\"MD5\" hash=\"0\"/>"
              "<SoftwareComponent vendorVersion=\"1.2\" "
              "hashAlgorithm=\"SHA256\" hash=\"" +
                  text.hash + "\"/>" + text.model + "</Package>");
    sign(directory);
}

void makeImage(const fs::path& image, const std::string& content)
{
    writeFile(image.string() + ".in", content);
    pack("image " + image.string() + ".in --key " +
         (keys() / "image-signer.pem").string() + " --force -o " +
         image.string());
}

Scratch::Scratch()
{
    std::string name = "/tmp/test-XXXXXX";
    path = mkdtemp(name.data());
}

Scratch::~Scratch() { fs::remove_all(path); }

void useRootCa(const std::string& name)
{
    fs::copy_file(keys() / name, ROOT_CA, fs::copy_options::overwrite_existing);
}

void SignedPayload::SetUp()
{
    metadata_algo = "PS384";
    useRootCa();
    for (const char* name : {"certchain", "publickey", "hashfunc"})
    {
        fs::remove_all(RUN_TIME / name);
    }
}

const std::string& SignedPayload::good()
{
    static const std::string content = []
    {
        const Scratch made;
        writeFile(made / "body", "body");
        pack("payload " + (made / "body").string() + " --chain " +
             (keys() / "chain.pem").string() + " --key " +
             (keys() / "payload-signer.pem").string() + " --alg PS384 -o " +
             (made / "payload").string());
        return readFile(made / "payload");
    }();
    return content;
}

/** Held while a service works and while a process is made: in the child, a lock
 *  that a service's thread held would stay held for ever. */
static std::mutex working;
[[maybe_unused]] static const int prepared = pthread_atfork(
    [] { working.lock(); }, [] { working.unlock(); }, [] { working.unlock(); });

Service::Service(const std::string& name, Handler handler) :
    handler_(std::move(handler))
{
    EXPECT_GE(sd_bus_open_system(&bus_), 0);
    sd_bus_add_filter(
        bus_, nullptr, [](sd_bus_message* call, void* self, sd_bus_error*)
        { return static_cast<Service*>(self)->handle(call); }, this);
    EXPECT_GE(sd_bus_request_name(bus_, name.c_str(), 0), 0) << name;
    thread_ = std::thread(&Service::work, this);
}

Service::~Service()
{
    stop_ = true;
    thread_.join();
    sd_bus_flush_close_unref(bus_);
}

void Service::work()
{
    while (!stop_)
    {
        int processed = 0;
        {
            const std::lock_guard lock(working);
            processed = sd_bus_process(bus_, nullptr);
        }
        if (processed == 0)
        {
            sd_bus_wait(bus_, 10'000);
        }
    }
}

int Service::handle(sd_bus_message* call)
{
    if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0)
    {
        return 0;
    }
    calls.push_back(std::string(sd_bus_message_get_path(call)) + " " +
                    sd_bus_message_get_interface(call) + " " +
                    sd_bus_message_get_member(call));
    for (const char* text = nullptr;
         sd_bus_message_read_basic(call, 's', &text) > 0;)
    {
        calls.emplace_back(text);
    }
    sd_bus_message_rewind(call, 1);
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_return(call, &reply);
    const int result = handler_(call, reply);
    if (result < 0)
    {
        sd_bus_reply_method_errorf(call, "com.example.Refused", "errno %d",
                                   -result);
    }
    else if (result != NO_REPLY)
    {
        sd_bus_send(bus_, reply, nullptr);
    }
    sd_bus_message_unref(reply);
    return 1;
}

Service::Handler systemIdBytes(std::vector<std::uint8_t> bytes)
{
    return [bytes = std::move(bytes)](sd_bus_message*, sd_bus_message* reply)
    {
        sd_bus_message_open_container(reply, 'v', "ay");
        sd_bus_message_append_array(reply, 'y', bytes.data(), bytes.size());
        return sd_bus_message_close_container(reply);
    };
}

Service::Handler keyAnswer(std::uint8_t status, const std::string& key)
{
    return [=](sd_bus_message*, sd_bus_message* reply)
    {
        sd_bus_message_append(reply, "yu", status, 7);
        return sd_bus_message_append_array(reply, 'y', key.data(), key.size());
    };
}

std::string busKey(std::string options)
{
    if (options.empty())
    {
        options = "-pubin -in " + (keys() / "image-signer.pub.pem").string();
    }
    const Scratch made;
    EXPECT_EQ(run("openssl pkey " + options + " -outform DER -out " +
                  (made / "key").string()),
              0);
    const std::string key = readFile(made / "key");
    return std::string{static_cast<char>(key.size()),
                       static_cast<char>(key.size() >> 8)} +
           key;
}

} // namespace velmora::test
