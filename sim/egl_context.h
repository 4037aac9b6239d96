// EglContext: a headless OpenGL context, current on the thread that made it,
// for offscreen rendering without a display or a GPU (Mesa's software
// renderer serves it). It tries Mesa's surfaceless platform first and the
// default display with a 1x1 pbuffer after; the renderer draws into its own
// framebuffer objects, so the surface is never drawn to. The display stays
// initialised for the life of the process (EGL shares it between threads).
//
// Threads: made, used and destroyed on one thread.
#pragma once

#include <EGL/egl.h>

namespace kelm {
namespace sim {

class EglContext {
public:
    // Throws std::runtime_error saying which EGL step failed.
    EglContext();
    ~EglContext();
    EglContext(const EglContext&) = delete;
    EglContext& operator=(const EglContext&) = delete;

private:
    bool tryDisplay(EGLDisplay display, bool surfaceless);
    void release();

    EGLDisplay display_ = EGL_NO_DISPLAY;
    EGLSurface surface_ = EGL_NO_SURFACE;
    EGLContext context_ = EGL_NO_CONTEXT;
};

}  // namespace sim
}  // namespace kelm
