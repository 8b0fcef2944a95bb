#pragma once
/// Capture of what the screen shows.

#ifdef __cplusplus
extern "C" {
#endif

enum dc_capture_plane { DC_PLANE_VIDEO = 1, DC_PLANE_GRAPHICS = 2, DC_PLANE_ALL = 3 };
enum dc_capture_rotation { DC_ROTATION_NONE = 0 };
enum dc_capture_format { DC_FORMAT_RAW = 0, DC_FORMAT_JPEG = 1 };

/// What to capture and how to store it.
typedef struct dc_capture_request {
    const char* file;  ///< path to write; the format adds no ending of its own
    int width;         ///< pixels of the stored picture
    int height;
    int plane;     ///< enum dc_capture_plane
    int rotation;  ///< enum dc_capture_rotation
    int format;    ///< enum dc_capture_format
    int quality;   ///< 1 to 100, of a lossy format
} dc_capture_request;

/// Returns when the file is complete. 0 on success; negative when there is no display, no way to capture it
/// or the file cannot be written (then no partial file stays).
int dc_request_capture_to_file_sync(const dc_capture_request* request);

#ifdef __cplusplus
}
#endif
