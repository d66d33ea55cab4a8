// The recent errors of a process by class, for operations that report to a user what went wrong below them.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/text.h"
#include "config/ini.h"
#include "config/services.h"
#include "log/logger.h"

namespace {

constexpr std::size_t MESSAGE_SIZE = 256;  // with the NUL
constexpr int SYSTEM = 0;
constexpr int PRODUCT = 2;
constexpr int NETWORK = 3;
constexpr int PLAIN = 4;
constexpr int RESOLVER = 5;
constexpr int HIGHEST_SYSTEM_ERROR = 254;
constexpr int HIGHEST_PRODUCT_ERROR = 13;
constexpr std::size_t REGISTERED_LIMIT = 10;

struct Record {
    int errorClass;
    int number;
    int sequence;
    std::string text;
};

struct RegisteredClass {
    int errorClass;
    int highest;
    std::string prefix;
    const char* (*text)(int number);
};

std::string textFile = "/dev/null";
std::vector<Record> lists[GERROR_CLASSES];
std::vector<RegisteredClass> registered;
int nextSequence = 0;

std::string numberText(const char* section, int number) {
    return ini_text(section, std::to_string(number).c_str(), "Unknown", textFile, MESSAGE_SIZE);
}

const char* resolverText(int number, int presentErrno) {
    switch (number) {
        case -1:
            return std::strerror(presentErrno);
        case 0:
            return "No network error reported";
        case 1:
            return "Host was not found";
        case 2:
            return "Please try again";
        case 3:
            return "Non recoverable error";
        case 4:
            return "Name valid, no data record found";
        default:
            return "Unknown error";
    }
}

std::string productMessage(int number, const char* message) {
    if (number == 1)
        return message;
    if (number > HIGHEST_PRODUCT_ERROR)
        return formatString("(DQ) %s DQ Error %d", message, number);
    return formatString("(DQ) %s %s", numberText("General", number).c_str(), message);
}

std::string registeredMessage(int errorClass, int number, const char* message) {
    for (const RegisteredClass& known : registered) {
        if (known.errorClass != errorClass)
            continue;
        if (number >= 0 && number <= known.highest)
            return formatString("%s%s %s", known.prefix.c_str(), message, known.text(number));
        return formatString("%s%s : Error %d is out of range (Max is %d)", known.prefix.c_str(), message, number,
                            known.highest);
    }
    return formatString("Unknown error class: %d %s", errorClass, message);
}

std::string classMessage(int errorClass, int number, const char* message, int presentErrno) {
    switch (errorClass) {
        case SYSTEM:
            return formatString(
                "(SYS) %s %s", message,
                number > HIGHEST_SYSTEM_ERROR ? "Error number is out of bounds" : std::strerror(number));
        case PRODUCT:
            return productMessage(number, message);
        case NETWORK:
            return formatString("(NET) %s %s", message,
                                number < 2 ? numberText("Network", number).c_str() : std::strerror(number));
        case PLAIN:
            return message;
        case RESOLVER:
            return formatString("(NETWORK) %s %s", message, resolverText(number, presentErrno));
        default:
            return registeredMessage(errorClass, number, message);
    }
}

}  // namespace

void init_gerror(const char* file) {
    textFile = file == nullptr ? "/dev/null" : file;
    for (std::vector<Record>& list : lists)
        list.clear();
}

void add_gerror(int errorClass, int number, const char* format, ...) {
    const int presentErrno = errno;
    if (errorClass < 0 || errorClass >= GERROR_CLASSES)
        return;
    va_list arguments;
    va_start(arguments, format);
    const std::string message = vformatString(format, arguments);
    va_end(arguments);
    std::string text = classMessage(errorClass, number, message.c_str(), presentErrno);
    text.resize(std::min(text.size(), MESSAGE_SIZE - 1));
    log_message(4, "add_gerror: %s\n", text.c_str());
    std::vector<Record>& list = lists[errorClass];
    if (list.size() >= static_cast<std::size_t>(GERROR_LIMIT)) {
        log_message(1, "add_gerror: WARNING - number of messages %d exceeds %d\n", static_cast<int>(list.size()),
                    GERROR_LIMIT);
        log_message(1, "Last message was \"%s\"\n", list.back().text.c_str());
        list.clear();
    }
    list.push_back({errorClass, number, nextSequence++, std::move(text)});
}

int register_gerror_class(int errorClass, int highest, const char* prefix, const char* (*text)(int number)) {
    if (registered.size() >= REGISTERED_LIMIT)
        return -1;
    registered.push_back({errorClass, highest, prefix, text});
    return 0;
}

int gerror_count(int errorClass) {
    return errorClass < 0 || errorClass >= GERROR_CLASSES ? 0 : static_cast<int>(lists[errorClass].size());
}

const char* gerror_text(int errorClass, int index) {
    if (index < 0 || index >= gerror_count(errorClass))
        return nullptr;
    return lists[errorClass][static_cast<std::size_t>(index)].text.c_str();
}
