#include "screengrab.h"

#include <xcb/damage.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

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

// The connection, the shared segment and the server's attachment to it, the damage record and
// the region it is read through: each made and freed only here.
struct ScreenGrab::Display {
    ~Display() {
        releaseSegment();
        if (watching) {
            xcb_damage_destroy(connection, damage);
            xcb_xfixes_destroy_region(connection, changes);
        }
        if (connection)
            xcb_disconnect(connection);
    }

    // Where the server does not report what changed, every grab is taken afresh.
    void watchChanges() {
        const xcb_query_extension_reply_t* damageExtension =
            xcb_get_extension_data(connection, &xcb_damage_id);
        const xcb_query_extension_reply_t* fixesExtension =
            xcb_get_extension_data(connection, &xcb_xfixes_id);
        if (!damageExtension || !damageExtension->present || !fixesExtension ||
            !fixesExtension->present)
            return;
        // Both extensions serve only a client that has said which version it speaks; regions
        // came with version 2 of the fixes.
        xcb_xfixes_query_version_reply_t* fixes = xcb_xfixes_query_version_reply(
            connection, xcb_xfixes_query_version(connection, 2, 0), nullptr);
        xcb_damage_query_version_reply_t* spoken = xcb_damage_query_version_reply(
            connection, xcb_damage_query_version(connection, 1, 1), nullptr);
        const bool usable = fixes && spoken && fixes->major_version >= 2;
        std::free(fixes);
        std::free(spoken);
        if (!usable)
            return;
        changes = xcb_generate_id(connection);
        xcb_xfixes_create_region(connection, changes, 0, nullptr);
        damage = xcb_generate_id(connection);
        // The record is read when a tick asks, so a single report when it fills is all the
        // server needs to send: nothing piles up while no one asks.
        xcb_generic_error_t* refused = xcb_request_check(
            connection,
            xcb_damage_create_checked(connection, damage, root, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY));
        if (refused) {
            std::free(refused);
            xcb_xfixes_destroy_region(connection, changes);
            return;
        }
        watching = true;
    }

    // The reports say only that the record filled; the record itself is what is read.
    void dropEvents() {
        while (xcb_generic_event_t* event = xcb_poll_for_event(connection))
            std::free(event);
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
    bool watching = false;
    xcb_damage_damage_t damage = 0;
    xcb_xfixes_region_t changes = 0;
    // The area of the last successful grab; empty when there is none.
    int grabbedX = 0;
    int grabbedY = 0;
    int grabbedWidth = 0;
    int grabbedHeight = 0;
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
    opened->watchChanges();
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
    display->grabbedWidth = 0;
    const int pad = display->scanlinePad;
    const int stride = (width * display->bitsPerPixel + pad - 1) / pad * pad / 8;
    if (!display->reserve(static_cast<std::size_t>(stride) * height, error))
        return false;
    // Emptied before the grab, in the same stream of requests: whatever is drawn after the grab
    // is in the record when the next tick reads it, and nothing drawn before is.
    if (display->watching)
        xcb_damage_subtract(display->connection, display->damage, XCB_NONE, XCB_NONE);
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
    display->grabbedX = x;
    display->grabbedY = y;
    display->grabbedWidth = width;
    display->grabbedHeight = height;
    return true;
}

bool ScreenGrab::changedSinceGrab(int x, int y, int width, int height) {
    if (!display || !display->watching)
        return true;
    Display& d = *display;
    if (d.grabbedWidth == 0 || x != d.grabbedX || y != d.grabbedY || width != d.grabbedWidth ||
        height != d.grabbedHeight)
        return true;
    // Emptied into the region and read back in one round trip, which also brings in all that
    // the server drew before it: the answer is as fresh as a grab would be.
    xcb_damage_subtract(d.connection, d.damage, XCB_NONE, d.changes);
    xcb_xfixes_fetch_region_reply_t* reply = xcb_xfixes_fetch_region_reply(
        d.connection, xcb_xfixes_fetch_region(d.connection, d.changes), nullptr);
    d.dropEvents();
    if (!reply)
        return true;
    const xcb_rectangle_t* rectangles = xcb_xfixes_fetch_region_rectangles(reply);
    const int count = xcb_xfixes_fetch_region_rectangles_length(reply);
    bool changed = false;
    for (int i = 0; i < count && !changed; ++i) {
        const xcb_rectangle_t& r = rectangles[i];
        changed = r.x < x + width && x < r.x + r.width && r.y < y + height && y < r.y + r.height;
    }
    std::free(reply);
    return changed;
}

} // namespace platform
