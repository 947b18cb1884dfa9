#include "screengrab.h"

#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <sys/ipc.h>
#include <sys/shm.h>

namespace platform {

namespace {

xcb_screen_t* screenAt(const xcb_setup_t* setup, int number) {
    for (xcb_screen_iterator_t it = xcb_setup_roots_iterator(setup); it.rem; xcb_screen_next(&it))
        if (number-- == 0)
            return it.data;
    return nullptr;
}

xcb_visualtype_t* visualOf(const xcb_screen_t* screen, xcb_visualid_t id) {
    for (xcb_depth_iterator_t depth = xcb_screen_allowed_depths_iterator(screen); depth.rem;
         xcb_depth_next(&depth))
        for (xcb_visualtype_iterator_t visual = xcb_depth_visuals_iterator(depth.data); visual.rem;
             xcb_visualtype_next(&visual))
            if (visual.data->visual_id == id)
                return visual.data;
    return nullptr;
}

const xcb_format_t* pixmapFormatOf(const xcb_setup_t* setup, uint8_t depth) {
    for (xcb_format_iterator_t it = xcb_setup_pixmap_formats_iterator(setup); it.rem;
         xcb_format_next(&it))
        if (it.data->depth == depth)
            return it.data;
    return nullptr;
}

// 24-bit and 30-bit depths in 32-bit words, 16-bit and 15-bit depths in 16-bit words.
PixelLayout layoutOf(const xcb_format_t& pixmap, const xcb_visualtype_t& visual, uint8_t order) {
    const bool lsbFirst = order == XCB_IMAGE_ORDER_LSB_FIRST;
    const auto masks = [&visual](uint32_t red, uint32_t green, uint32_t blue) {
        return visual.red_mask == red && visual.green_mask == green && visual.blue_mask == blue;
    };
    if (pixmap.bits_per_pixel == 32 && masks(0xff0000, 0xff00, 0xff))
        return lsbFirst ? PixelLayout::Bgrx : PixelLayout::Xrgb;
    if (pixmap.bits_per_pixel == 32 && lsbFirst && masks(0x3ff00000, 0xffc00, 0x3ff))
        return PixelLayout::X2rgb10;
    if (pixmap.bits_per_pixel == 32 && lsbFirst && masks(0x3ff, 0xffc00, 0x3ff00000))
        return PixelLayout::X2bgr10;
    if (pixmap.bits_per_pixel == 16 && lsbFirst && masks(0xf800, 0x7e0, 0x1f))
        return PixelLayout::Rgb565;
    if (pixmap.bits_per_pixel == 16 && lsbFirst && masks(0x7c00, 0x3e0, 0x1f))
        return PixelLayout::Rgb555;
    return PixelLayout::None;
}

} // namespace

// The connection, the shared segment and the server's attachment to it: each made and freed
// only here.
struct ScreenGrab::Display {
    ~Display() {
        releaseSegment();
        if (connection)
            xcb_disconnect(connection);
    }

    void releaseSegment() {
        if (attached)
            xcb_shm_detach(connection, segment);
        attached = false;
        if (memory)
            shmdt(memory);
        memory = nullptr;
        capacity = 0;
    }

    // Keeps the segment when the area fits: it is made anew only for a larger area.
    bool reserve(std::size_t size, std::string& error) {
        if (size <= capacity)
            return true;
        releaseSegment();
        const int id = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
        if (id < 0) {
            error = "Cannot create a shared memory segment for the screen grab";
            return false;
        }
        void* address = shmat(id, nullptr, 0);
        if (address == reinterpret_cast<void*>(-1)) {
            shmctl(id, IPC_RMID, nullptr);
            error = "Cannot map the shared memory segment for the screen grab";
            return false;
        }
        memory = static_cast<uint8_t*>(address);
        segment = xcb_generate_id(connection);
        xcb_generic_error_t* refused =
            xcb_request_check(connection, xcb_shm_attach_checked(connection, segment, id, 0));
        // Marked for removal at once: the system frees it when both sides have let go, even
        // if this process dies.
        shmctl(id, IPC_RMID, nullptr);
        if (refused) {
            std::free(refused);
            shmdt(memory);
            memory = nullptr;
            error = "The X server cannot attach the shared memory segment";
            return false;
        }
        attached = true;
        capacity = size;
        return true;
    }

    xcb_connection_t* connection = nullptr;
    xcb_window_t root = 0;
    PixelLayout layout = PixelLayout::None;
    int bitsPerPixel = 0;
    int scanlinePad = 0;
    xcb_shm_seg_t segment = 0;
    bool attached = false;
    uint8_t* memory = nullptr;
    std::size_t capacity = 0;
};

ScreenGrab::ScreenGrab() = default;

ScreenGrab::~ScreenGrab() = default;

bool ScreenGrab::open() {
    display.reset();
    auto opened = std::make_unique<Display>();
    int screenNumber = 0;
    opened->connection = xcb_connect(nullptr, &screenNumber);
    if (xcb_connection_has_error(opened->connection)) {
        error = "No X display to grab from";
        return false;
    }
    const xcb_query_extension_reply_t* shm =
        xcb_get_extension_data(opened->connection, &xcb_shm_id);
    if (!shm || !shm->present) {
        error = "The X server has no shared memory extension";
        return false;
    }
    const xcb_setup_t* setup = xcb_get_setup(opened->connection);
    const xcb_screen_t* screen = screenAt(setup, screenNumber);
    const xcb_visualtype_t* visual = screen ? visualOf(screen, screen->root_visual) : nullptr;
    const xcb_format_t* pixmap = screen ? pixmapFormatOf(setup, screen->root_depth) : nullptr;
    if (!visual || !pixmap) {
        error = "The X screen does not describe its pixels";
        return false;
    }
    opened->layout = layoutOf(*pixmap, *visual, setup->image_byte_order);
    if (opened->layout == PixelLayout::None) {
        error = "The X screen's pixel layout is not one the shared memory grab reads";
        return false;
    }
    opened->root = screen->root;
    opened->bitsPerPixel = pixmap->bits_per_pixel;
    opened->scanlinePad = pixmap->scanline_pad;
    display = std::move(opened);
    error.clear();
    return true;
}

bool ScreenGrab::grab(int x, int y, int width, int height, GrabbedPicture& picture) {
    if (!display) {
        error = "The screen grab is not open";
        return false;
    }
    if (width < 1 || height < 1 || width > 0x7fff || height > 0x7fff) {
        error = "The area to grab is empty or too large";
        return false;
    }
    const int pad = display->scanlinePad;
    const int stride = (width * display->bitsPerPixel + pad - 1) / pad * pad / 8;
    if (!display->reserve(static_cast<std::size_t>(stride) * height, error))
        return false;
    xcb_generic_error_t* failed = nullptr;
    xcb_shm_get_image_reply_t* reply = xcb_shm_get_image_reply(
        display->connection,
        xcb_shm_get_image(display->connection, display->root, static_cast<int16_t>(x),
                          static_cast<int16_t>(y), static_cast<uint16_t>(width),
                          static_cast<uint16_t>(height), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP,
                          display->segment, 0),
        &failed);
    const bool grabbed = reply && !failed;
    std::free(reply);
    std::free(failed);
    if (!grabbed) {
        error = "The X server cannot grab the area";
        return false;
    }
    picture.data = display->memory;
    picture.layout = display->layout;
    picture.width = width;
    picture.height = height;
    picture.stride = stride;
    return true;
}

} // namespace platform
