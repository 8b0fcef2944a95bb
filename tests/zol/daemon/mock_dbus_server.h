#pragma once
#include <gmock/gmock.h>

#include "IDbus.h"

class MockDbusServer : public zol::IDbusServer {
public:
    MOCK_METHOD(int, SendNotification, (int code, int timeoutMs), (override));
    MOCK_METHOD(void, CancelNotifications, (), (override));
};
