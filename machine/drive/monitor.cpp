// QEMU's monitor (QMP): one command at a time, one JSON object a line each way, events in between.

#include "monitor.h"

#include <stdexcept>

using nlohmann::json;

namespace
{

/// The next object that is not an event; pumps meanwhile.
json next_answer(Cabinet &cabinet)
{
    std::string &in = cabinet.monitor_port.in;
    for (;;) {
        if (!wait_until(
                cabinet, [&] { return in.find('\n') != std::string::npos; }, 30))
            throw std::runtime_error("no answer from QEMU's monitor");
        size_t end = in.find('\n');
        json message = json::parse(in.substr(0, end));
        in.erase(0, end + 1);
        if (!message.contains("event") && !message.contains("QMP"))
            return message;
    }
}

json execute(Cabinet &cabinet, const std::string &command, const json &arguments)
{
    json request = {{"execute", command}};
    if (!arguments.empty())
        request["arguments"] = arguments;
    cabinet.monitor_port.out += request.dump() + "\n";
    json answer = next_answer(cabinet);
    if (answer.contains("error"))
        throw std::runtime_error("QEMU's monitor refused " + command + ": " + answer["error"].dump());
    return answer["return"];
}

} // namespace

json monitor(Cabinet &cabinet, const std::string &command, const json &arguments)
{
    if (!cabinet.monitor_ready)
        execute(cabinet, "qmp_capabilities", {});
    cabinet.monitor_ready = true;
    return execute(cabinet, command, arguments);
}

void plug_in_stick(Cabinet &cabinet, const std::string &image, const std::string &name)
{
    monitor(cabinet, "blockdev-add",
            {{"driver", "raw"},
             {"node-name", name + "-image"},
             {"file", {{"driver", "file"}, {"filename", image}}}});
    monitor(cabinet, "device_add",
            {{"driver", "usb-storage"}, {"id", name}, {"drive", name + "-image"}, {"bus", "usb.0"}});
}

void pull_out_stick(Cabinet &cabinet, const std::string &name)
{
    monitor(cabinet, "device_del", {{"id", name}});
}
