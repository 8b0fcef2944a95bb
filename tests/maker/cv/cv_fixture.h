#pragma once
/// A tracing library without a past.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cv/TCScopeContainer.h"
#include "cv/TCScopeHandler.h"
#include "cv/TCTraceControl.h"
#include "cv/TCTrapPattern.h"
#include "cv/TSCallItem.h"
#include "device_paths.h"
#include "fakes.h"

class CvFixture : public testing::Test {
protected:
    CvFixture() {
        fakes::Reset();
        Handler().Reload();
        Handler().Clear();
        cv::TCTrapPattern::Instance().Clear();
    }
    ~CvFixture() override { Handler().SetActive(false); }

    static cv::TCScopeHandler& Handler() { return cv::TCScopeHandler::Instance(); }
    static std::vector<cv::TSEvent> Events() { return Handler().Items(); }

    /// The names of the matched traps, oldest first.
    static std::vector<std::string> Matches() {
        std::vector<std::string> names;
        for (const cv::TSTrapMatch& match : cv::TCTrapPattern::Instance().Items()) {
            names.emplace_back(match.name);
        }
        return names;
    }

    static int LoadTraps(const std::string& text) {
        fakes::WriteDeviceFile(ZOL_PATH_TRAP_CONF, text);
        return Handler().Reload();
    }
};
