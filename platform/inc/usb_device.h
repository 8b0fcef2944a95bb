#pragma once
/// USB mass storage.
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Owned by the service until usb_device_fini.
typedef struct usb_device_list_s usb_device_list_t;
typedef struct usb_device_s usb_device_t;

enum usb_device_class { USB_DEVICE_MASS_STORAGE = 1 };

/// 0 on success, else negative. One thread at a time between init and fini.
int usb_device_init(void);
/// The mounted devices of a class, in the order in which they were plugged in. 0 on success, else negative.
int usb_device_get_device_list(int device_class, usb_device_list_t** list);
/// Null when the list is empty.
usb_device_t* usb_device_list_get_first(usb_device_list_t* list);
/// Copies the path where the device's first file system is mounted. 0 on success; -1 when it is not mounted
/// or `size` is too small.
int usb_device_get_mountpath(usb_device_t* device, char* path, size_t size);
void usb_device_fini(void);

#ifdef __cplusplus
}
#endif
