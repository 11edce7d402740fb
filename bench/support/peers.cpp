#include "support/peers.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace bench {
namespace {

time_point time_of(kt::LineLog &log, const std::string &part) {
    const std::size_t at = log.wait_for_containing(part);
    if (at == 0) {
        throw std::runtime_error("a peer did not say '" + part + "':\n" + log.tail(20));
    }
    return log.lines(at - 1).front().at;
}

void end(std::unique_ptr<kt::Process> &process) {
    process->signal(SIGTERM);
    if (process->wait() == -1) {
        throw std::runtime_error("a peer does not end");
    }
    process.reset();
}

} // namespace

Networkd::Networkd(kt::Sandbox &sandbox, int count) {
    const std::string directory = sandbox.directory() + "/networkd";
    std::ofstream file(sandbox.directory() + "/bench.network");
    file << "[Match]\nName=eth0\n[Network]\nLinkLocalAddressing=ipv6\nIPv6AcceptRA=no\nDHCP=no\n";
    for (int i = 1; i <= count; ++i) {
        file << "[Address]\nAddress=" << address_text(i) << "\nDuplicateAddressDetection=none\n";
    }
    file.close();
    const std::string script = "set -e; mount -t sysfs -o ro none /sys;"
                               "mount -t tmpfs none /run; mkdir -p /run/systemd/network"
                               " /run/systemd/netif/links /run/systemd/netif/leases"
                               " /run/systemd/netif/lldp;"
                               "cp " +
                               sandbox.directory() +
                               "/bench.network /run/systemd/network/;"
                               "chown -R systemd-network /run/systemd/netif; echo begins;"
                               "exec /lib/systemd/systemd-networkd";
    kt::spawn_options_t options;
    options.environment["SYSTEMD_LOG_TARGET"] = "console";
    process = std::make_unique<kt::Process>(
        sandbox, std::vector<std::string>{"/usr/bin/unshare", "--mount", "/bin/sh", "-c", script},
        options);
}

time_point Networkd::begun() {
    return time_of(process->output(), "begins");
}

void Networkd::stop() {
    end(process);
}

Keepalived::Keepalived(kt::Sandbox &sandbox, int count) {
    const std::string path = sandbox.directory() + "/keepalived.conf";
    std::ofstream file(path);
    file << "global_defs {\n  vrrp_version 3\n  vrrp_garp_master_repeat 0\n}\n"
            "vrrp_instance bench {\n  state MASTER\n  interface eth0\n  virtual_router_id 51\n"
            "  priority 255\n  advert_int 0.1\n  native_ipv6\n"
            "  virtual_ipaddress {\n    fe80::51/64\n  }\n  virtual_ipaddress_excluded {\n";
    for (int i = 1; i <= count; ++i) {
        file << "    " << address_text(i) << " dev eth0\n";
    }
    file << "  }\n}\n";
    file.close();
    process = std::make_unique<kt::Process>(
        sandbox, std::vector<std::string>{"/usr/sbin/keepalived", "--dont-fork", "--log-console",
                                          "--use-file", path, "--pid",
                                          sandbox.directory() + "/keepalived.pid", "--vrrp_pid",
                                          sandbox.directory() + "/vrrp.pid", "--vrrp"});
}

time_point Keepalived::elected() {
    return time_of(process->errors(), "Entering MASTER STATE");
}

pid_t Keepalived::worker() const {
    const std::string children = kt::read_file("/proc/" + std::to_string(pid()) + "/task/" +
                                               std::to_string(pid()) + "/children");
    return static_cast<pid_t>(std::strtol(children.c_str(), nullptr, 10));
}

void Keepalived::stop() {
    end(process);
}

} // namespace bench
