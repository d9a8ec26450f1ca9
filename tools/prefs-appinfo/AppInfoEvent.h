#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Halo::OS {

// One one-way call to the app-info listener: a schema list, the user list, the current user or
// a removed user.
class AppInfoEvent {
public:
    enum class Kind { Schema, UserList, CurrentUser, DeleteUserData };

    static AppInfoEvent schema(const std::string& list) {
        AppInfoEvent event(Kind::Schema);
        event.mSchema.assign(list.begin(), list.end());
        return event;
    }
    static AppInfoEvent userList(std::vector<int32_t> users) {
        AppInfoEvent event(Kind::UserList);
        event.mUsers = std::move(users);
        return event;
    }
    static AppInfoEvent currentUser(int32_t user) {
        AppInfoEvent event(Kind::CurrentUser);
        event.mUser = user;
        return event;
    }
    static AppInfoEvent deleteUserData(int32_t user) {
        AppInfoEvent event(Kind::DeleteUserData);
        event.mUser = user;
        return event;
    }

    Kind kind() const { return mKind; }
    // Schema: the schema-list document as bytes.
    const std::vector<uint8_t>& schemaBytes() const { return mSchema; }
    // UserList: the users.
    const std::vector<int32_t>& users() const { return mUsers; }
    // CurrentUser, DeleteUserData: the user.
    int32_t user() const { return mUser; }

private:
    explicit AppInfoEvent(Kind kind) : mKind(kind) {}

    Kind mKind;
    std::vector<uint8_t> mSchema;
    std::vector<int32_t> mUsers;
    int32_t mUser = 0;
};

}  // namespace Halo::OS
