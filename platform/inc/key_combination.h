#pragma once
/// Keys of the remote control that are held together.

#ifdef __cplusplus
extern "C" {
#endif

/// Id of a combination; which keys it means is the platform's table.
typedef int KeyComb;

enum { KEY_COMBINATION_COUNT = 128 };  ///< ids are 0 to 127

/// Runs on a thread of the service's own, one call at a time, once each time a combination becomes complete.
typedef void (*KeyCombination_Handler)(KeyComb id, void* user_data);

/// 0 on success, else negative. Succeeds without any input device: those that come later are watched too.
int KeyCombination_Initialize(void);
/// @param list KEY_COMBINATION_COUNT flags indexed by id; 1 means that the caller wants to hear of it.
int KeyCombination_Set_CombinationList(const int* list, int count);
int KeyCombination_Register_Handler(KeyCombination_Handler handler, void* user_data);
/// When this returns the handler is not running and never runs again. From inside the handler: it is not
/// called again.
int KeyCombination_Delete_Handler(KeyCombination_Handler handler);
/// Ends the service. Not from inside a handler.
int KeyCombination_Finalize(void);

#ifdef __cplusplus
}
#endif
