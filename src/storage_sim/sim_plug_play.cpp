// The storage daemon and its plug-and-play service.
#include <cstdint>
#include <list>

#include "sim.h"

namespace sim {
namespace {

// Answers from the volume_channels table; a volume is named by its number.
class PlugPlayService : public IPlugPlayService {
public:
    ~PlugPlayService() override = default;

    int get_volume_channel_list(TVolumeConfig& volume, ornsid& a, ornsid& b,
                                std::list<channel_sid>& channels) override;
};

int PlugPlayService::get_volume_channel_list(TVolumeConfig& volume, ornsid&, ornsid&,
                                             std::list<channel_sid>& channels) {
    channels.clear();
    Call call;
    std::list<channel_sid> found;
    {
        Stmt rows(
            "SELECT channel_id, sid FROM volume_channels WHERE volume_no = ?1 ORDER BY rowid");
        rows.bind(1, volume.volume_no);
        while (rows.step()) {
            found.emplace_back();
            fill_channel(rows, found.back());
        }
    }
    log_call("get_volume_channel_list",
             {arg("volume_no", volume.volume_no), arg("field_1092", volume.field_1092)}, 0);
    if (!call.finish()) return -1;
    channels.swap(found);
    return 0;
}

}  // namespace
}  // namespace sim

COrnStorageDaemon::COrnStorageDaemon() { sim::log_call("COrnStorageDaemon", {}); }

COrnStorageDaemon::~COrnStorageDaemon() { sim::log_call("~COrnStorageDaemon", {}); }

int COrnStorageDaemon::create_plug_play_service(IPlugPlayService** service) {
    sim::Call call;
    int result = 0;
    bool failed = sim::fault("create_plug_play_service", "*", false, &result);
    sim::log_call("create_plug_play_service", {}, failed ? result : 0);
    if (!call.finish()) return -1;
    if (failed) return result;
    *service = new sim::PlugPlayService();
    return 0;
}

int COrnStorageDaemon::destroy_plug_play_service(IPlugPlayService** service) {
    sim::Call call;
    sim::log_call("destroy_plug_play_service", {}, 0);
    if (service != nullptr && *service != nullptr) {
        delete static_cast<sim::PlugPlayService*>(*service);
        *service = nullptr;
    }
    return call.finish() ? 0 : -1;
}
