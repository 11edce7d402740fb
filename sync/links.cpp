// Which kernel links the engine tracks.

#include <linux/rtnetlink.h>

#include "shell/log.h"
#include "sync/sync.h"

void CSync::nl_link_update(int type, const std::vector<CKernInterface> &links) {
    for (const CKernInterface &link : links) {
        if (link.name.compare(0, if_prefix.size(), if_prefix) != 0) {
            log_info_at(3, "Skipping update for link '%s'", link.name.c_str());
            continue;
        }
        const char *word = nullptr;
        if (type == RTM_NEWLINK) {
            add_link(link);
            word = "ADDING";
        } else if (type == RTM_DELLINK) {
            erase_link(link);
            word = "REMOVING";
        } else {
            continue;
        }
        log_info_at(2, "%s link [%d]: %s : %s", word, link.ifindex, link.name.c_str(),
                    link.hwaddr.c_str());
    }
}

void CSync::add_link(const CKernInterface &link) {
    if (interfaces.count(link.ifindex) != 0) {
        return; // changed flags, or a new name: an entry keeps the first name that it got
    }
    log_info_at(3, "Adding new link: '%s' (%d)", link.name.c_str(), link.ifindex);
    CFullInterface &iface = interfaces[link.ifindex].iface;
    iface.ifindex = link.ifindex;
    iface.name = link.name;
    iface.hwaddr = link.hwaddr;
    if (state == state_normal) {
        sync_all();
    }
}

void CSync::erase_link(const CKernInterface &link) {
    const auto found = interfaces.find(link.ifindex);
    if (found == interfaces.end()) {
        return;
    }
    log_info_at(3, "Erasing existing link: '%s' (%d)", link.name.c_str(), link.ifindex);
    interfaces.erase(found);
}
