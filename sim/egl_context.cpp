#include "egl_context.h"

#include <EGL/eglext.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace kelm {
namespace sim {
namespace {

std::string eglErrorText() {
    char text[32];
    std::snprintf(text, sizeof text, "EGL error 0x%04x", static_cast<unsigned>(eglGetError()));
    return text;
}

}  // namespace

EglContext::EglContext() {
    const EGLDisplay surfaceless = eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (surfaceless != EGL_NO_DISPLAY && tryDisplay(surfaceless, true)) return;
    const std::string surfaceless_failure = eglErrorText();
    if (tryDisplay(eglGetDisplay(EGL_DEFAULT_DISPLAY), false)) return;
    throw std::runtime_error("no offscreen OpenGL context: surfaceless display (" + surfaceless_failure +
                             "), default display (" + eglErrorText() + ")");
}

EglContext::~EglContext() { release(); }

bool EglContext::tryDisplay(EGLDisplay display, bool surfaceless) {
    if (display == EGL_NO_DISPLAY) return false;
    EGLint major = 0, minor = 0;
    if (!eglInitialize(display, &major, &minor)) return false;
    display_ = display;
    // clang-format off
    const EGLint config_attributes[] = {
        EGL_SURFACE_TYPE, surfaceless ? 0 : EGL_PBUFFER_BIT,
        EGL_RED_SIZE, 8, EGL_GREEN_SIZE, 8, EGL_BLUE_SIZE, 8, EGL_DEPTH_SIZE, 24,
        EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT,
        EGL_NONE};
    // clang-format on
    EGLConfig config = nullptr;
    EGLint configs = 0;
    if (!eglChooseConfig(display, config_attributes, &config, 1, &configs) || configs < 1 ||
        !eglBindAPI(EGL_OPENGL_API)) {
        release();
        return false;
    }
    if (!surfaceless) {
        const EGLint pbuffer_attributes[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
        surface_ = eglCreatePbufferSurface(display, config, pbuffer_attributes);
    }
    context_ = eglCreateContext(display, config, EGL_NO_CONTEXT, nullptr);
    if (context_ == EGL_NO_CONTEXT || (!surfaceless && surface_ == EGL_NO_SURFACE) ||
        !eglMakeCurrent(display, surface_, surface_, context_)) {
        release();
        return false;
    }
    return true;
}

void EglContext::release() {
    if (display_ == EGL_NO_DISPLAY) return;
    eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    if (context_ != EGL_NO_CONTEXT) eglDestroyContext(display_, context_);
    if (surface_ != EGL_NO_SURFACE) eglDestroySurface(display_, surface_);
    display_ = EGL_NO_DISPLAY;
    surface_ = EGL_NO_SURFACE;
    context_ = EGL_NO_CONTEXT;
}

}  // namespace sim
}  // namespace kelm
