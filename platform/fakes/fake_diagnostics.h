#pragma once
/// Key combinations, USB storage, display capture and notifications.
#include <string>
#include <vector>

#include "display_capture.h"

namespace fakes {

namespace keys {
/// Presses a combination: the registered handler runs on the calling thread, if it asked for this id.
void Press(int id);
bool HandlerRegistered();
/// The flags of the combinations that were asked for, indexed by id.
std::vector<int> Wanted();
/// Lets KeyCombination_Initialize fail.
void FailInitialize(bool fail);
/// Initialize calls without a Finalize.
int OpenServices();
}  // namespace keys

namespace usb {
enum Failure { FAIL_NONE, FAIL_INIT, FAIL_LIST, FAIL_MOUNTPATH };
/// Plugs a stick in that is mounted here; an empty path takes it out.
void SetStick(const std::string& mountPath);
void Fail(Failure failure);
/// usb_device_init calls without usb_device_fini.
int OpenServices();
}  // namespace usb

namespace capture {
/// A request, its file name kept.
struct Request {
    std::string file;
    dc_capture_request request;
};
std::vector<Request> Requests();
/// Lets captures fail; else each writes the text "picture" to its file.
void Fail(bool fail);
}  // namespace capture

namespace notification {
enum Failure { FAIL_NONE, FAIL_CREATE, FAIL_LAYOUT };
void Fail(Failure failure);
/// "title|content" of each post.
std::vector<std::string> Posted();
/// Handles created and not freed.
int Handles();
/// The values of notification_create and the setters in order, such as "create 0", "text 1 CONTENT -1".
std::vector<std::string> Settings();
}  // namespace notification

}  // namespace fakes
