// A plain tracker that keeps everything by name: what the real one must answer.
#pragma once

#include <list>
#include <map>
#include <memory>

#include "watch/vrrp_fixture.hpp"

namespace vyt::test {

struct model_instance {
    bool enabled = false;
    int vrid;
    int group = 0;
    int status = 0;
};
using instance_ptr = std::shared_ptr<model_instance>;

struct model_namespace {
    std::string name;
    std::map<int, instance_ptr> instances;
};

struct model_group {
    int previous = -1;
    int status = 0;
    std::list<instance_ptr> members;
};

struct file_record {
    int vrid;
    int state;
    int group;
    std::string netns;
};

struct status_contents {
    std::vector<file_record> records;
    size_t stray_bytes = 0; // behind the last record
};

inline std::string spelled(const std::string &netns)
{
    return netns.empty() ? "1" : netns;
}

class Model {
  public:
    int enable_group(int group)
    {
        groups.try_emplace(group);
        return 0;
    }

    answer disable_group(int group)
    {
        const auto found = groups.find(group);
        if (found == groups.end())
            return {-1, ENODATA};
        const auto members = found->second.members;
        for (const instance_ptr &member : members) {
            if (!member->enabled)
                destroy(member);
        }
        groups.erase(group);
        return {0, 77};
    }

    void enable_instance(const std::string &netns, int vrid)
    {
        make_instance(make_namespace(netns), vrid)->enabled = true;
    }

    void disable_instance(const std::string &netns, int vrid)
    {
        model_namespace *ns = find_namespace(netns);
        if (ns != nullptr && ns->instances.count(vrid) != 0)
            destroy(ns->instances[vrid]);
    }

    answer instance_status(const std::string &netns, int vrid)
    {
        const model_namespace *ns = find_namespace(netns);
        if (ns == nullptr)
            return {-1, 77};
        const auto found = ns->instances.find(vrid);
        return found == ns->instances.end() ? answer{-1, ENODATA}
                                            : answer{found->second->status, 77};
    }

    bool follows_something() const
    {
        bool found = !groups.empty();
        each_instance([&](const instance_ptr &instance) { found |= instance->enabled; });
        return found;
    }

    bool something_is_unknown() const
    {
        bool found = false;
        for (const auto &[number, group] : groups)
            found |= group.status == 0;
        each_instance([&](const instance_ptr &instance) { found |= instance->status == 0; });
        return found;
    }

    // One reading; no contents: no file.
    answer read(const status_contents *contents)
    {
        for (auto &[number, group] : groups) {
            group.previous = group.status;
            group.status = 0;
            group.members.clear();
        }
        each_instance([](const instance_ptr &instance) {
            instance->status = 0;
            instance->group = 0;
        });
        const int error = contents != nullptr ? take(*contents) : 0;
        for (const auto &[number, group] : groups) {
            if (group.previous != group.status)
                lines.push_back("VRRP_DBG VRRP group " + std::to_string(number) +
                                " change status " + text(group.previous) + " to " +
                                text(group.status));
        }
        clean_up();
        return {error == 0 ? 0 : -1, error};
    }

    void clean_up()
    {
        for (model_namespace &ns : namespaces)
            std::erase_if(ns.instances, [](const auto &entry) {
                return !entry.second->enabled && entry.second->group == 0;
            });
        namespaces.remove_if([](const model_namespace &ns) { return ns.instances.empty(); });
    }

    std::map<int, model_group> groups; // the followed ones
    std::vector<std::string> lines;

  private:
    template <class Function>
    void each_instance(Function &&function) const
    {
        for (const model_namespace &ns : namespaces) {
            for (const auto &[vrid, instance] : ns.instances)
                function(instance);
        }
    }

    model_namespace *find_namespace(const std::string &netns)
    {
        for (model_namespace &ns : namespaces) {
            if (ns.name == spelled(netns))
                return &ns;
        }
        return nullptr;
    }

    model_namespace &make_namespace(const std::string &netns)
    {
        if (model_namespace *ns = find_namespace(netns))
            return *ns;
        namespaces.push_front({spelled(netns).substr(0, 31), {}});
        return namespaces.front();
    }

    static instance_ptr make_instance(model_namespace &ns, int vrid)
    {
        instance_ptr &slot = ns.instances[vrid];
        if (slot == nullptr) {
            slot = std::make_shared<model_instance>();
            slot->vrid = vrid;
        }
        return slot;
    }

    void leave_groups(const instance_ptr &instance)
    {
        for (auto &[number, group] : groups)
            group.members.remove(instance);
    }

    void destroy(const instance_ptr &which)
    {
        const instance_ptr instance = which;
        leave_groups(instance);
        for (model_namespace &ns : namespaces)
            std::erase_if(ns.instances,
                          [&](const auto &entry) { return entry.second == instance; });
    }

    int take(const status_contents &contents)
    {
        if (contents.stray_bytes != 0) {
            lines.push_back("read_vrrp_info: IS_NE check failed: remainder (" +
                            std::to_string(contents.stray_bytes) + " != 0) !!!");
            return EIO;
        }
        if (contents.records.empty())
            return ENOENT;
        for (const file_record &record : contents.records)
            take(record);
        return 0;
    }

    void take(const file_record &record)
    {
        if (record.vrid < 1 || record.vrid > 255) {
            lines.push_back("VRRP_DBG <read_vrrp_info> invalid Virtual Router Id " +
                            std::to_string(record.vrid));
            return;
        }
        if (record.group != 0 && (record.group < 1 || record.group > 32)) {
            lines.push_back("VRRP_DBG <read_vrrp_info> invalid VRRP group " +
                            std::to_string(record.group));
            return;
        }
        const auto group = groups.find(record.group);
        instance_ptr instance;
        if (group != groups.end()) {
            instance = make_instance(make_namespace(record.netns), record.vrid);
        } else {
            model_namespace *ns = find_namespace(record.netns);
            if (ns == nullptr || ns->instances.count(record.vrid) == 0 ||
                !ns->instances[record.vrid]->enabled)
                return;
            instance = ns->instances[record.vrid];
        }
        instance->group = record.group;
        if (record.state >= 0 && record.state <= 3)
            instance->status = record.state + 1;
        leave_groups(instance);
        if (group != groups.end()) {
            group->second.members.push_front(instance);
            fold(group->second, *instance, record.state);
        }
    }

    static void fold(model_group &group, const model_instance &instance, int state)
    {
        switch (group.status) {
        case 0: // the first member
            group.status = instance.status;
            break;
        case 2: // backup
            if (state != 1 && state != 2)
                group.status = instance.status;
            break;
        case 3: // master
            if (state != 2)
                group.status = instance.status;
            break;
        default: // init and fault are kept
            break;
        }
    }

    static const char *text(int status)
    {
        const char *const texts[] = {"Unknown", "Init", "Backup", "Master", "Fault"};
        return texts[status];
    }

    std::list<model_namespace> namespaces; // newest first
};

} // namespace vyt::test
