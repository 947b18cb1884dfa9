#include "audiocapture.h"

#include <initguid.h>
#include <windows.h>

#include <audioclient.h>
#include <functiondiscoverykeys_devpkey.h>
#include <mmdeviceapi.h>

#include <algorithm>
#include <chrono>
#include <vector>

// WASAPI in shared mode: the audio engine converts whatever the device delivers to our format,
// and loopback of the default render device records what the machine plays.
namespace platform {

namespace {

constexpr int blockMs = 10;
constexpr int waitLimitMs = 2000;
// WASAPI counts in units of 100 ns.
constexpr REFERENCE_TIME bufferDuration = 100 * 10000;
// KSDATAFORMAT_SUBTYPE_IEEE_FLOAT, which mingw declares without a definition to link.
constexpr GUID floatSamples = {
    0x00000003, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71}};

int64_t steadyUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string narrow(const wchar_t* text) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string result(size > 0 ? size - 1 : 0, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, result.data(), size, nullptr, nullptr);
    return result;
}

std::wstring widen(const std::string& text) {
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, nullptr, 0);
    std::wstring result(size > 0 ? size - 1 : 0, L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, result.data(), size);
    return result;
}

std::string friendlyName(IMMDevice* device) {
    IPropertyStore* properties = nullptr;
    std::string text;
    if (FAILED(device->OpenPropertyStore(STGM_READ, &properties)))
        return text;
    PROPVARIANT value;
    PropVariantInit(&value);
    if (SUCCEEDED(properties->GetValue(PKEY_Device_FriendlyName, &value)) && value.vt == VT_LPWSTR)
        text = narrow(value.pwszVal);
    PropVariantClear(&value);
    properties->Release();
    return text;
}

template <class T> void release(T*& object) {
    if (object)
        object->Release();
    object = nullptr;
}

} // namespace

struct AudioCapture::Session {
    // Lives as long as the capture, so that interrupt() always has an event to set.
    HANDLE wake = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    bool com = false;
    bool loopback = false;
    IMMDeviceEnumerator* devices = nullptr;
    IMMDevice* device = nullptr;
    IAudioClient* client = nullptr;
    IAudioCaptureClient* capture = nullptr;
    // Frames handed out by read() and not yet given back to the engine.
    UINT32 held = 0;
    std::vector<float> silence;
    int64_t lastSoundUs = 0;

    ~Session() { CloseHandle(wake); }

    // By endpoint id first, then by the name the user sees.
    IMMDevice* find(const std::string& source) {
        if (source == "default" || source == "output") {
            IMMDevice* found = nullptr;
            devices->GetDefaultAudioEndpoint(loopback ? eRender : eCapture, eConsole, &found);
            return found;
        }
        IMMDevice* found = nullptr;
        if (SUCCEEDED(devices->GetDevice(widen(source).c_str(), &found)))
            return found;
        IMMDeviceCollection* all = nullptr;
        UINT count = 0;
        if (FAILED(devices->EnumAudioEndpoints(eCapture, DEVICE_STATE_ACTIVE, &all)))
            return nullptr;
        all->GetCount(&count);
        for (UINT i = 0; i < count && !found; ++i) {
            if (SUCCEEDED(all->Item(i, &found)) && friendlyName(found) != source)
                release(found);
        }
        all->Release();
        return found;
    }
};

AudioCapture::AudioCapture() : session(std::make_unique<Session>()) {}

AudioCapture::~AudioCapture() {
    close();
}

bool AudioCapture::open(const std::string& source) {
    close();
    error.clear();
    if (interrupted)
        return false;
    Session& s = *session;
    const HRESULT started = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    s.com = SUCCEEDED(started);
    s.loopback = source == "output";
    if (FAILED(CoCreateInstance(__uuidof(MMDeviceEnumerator), nullptr, CLSCTX_ALL,
                                __uuidof(IMMDeviceEnumerator),
                                reinterpret_cast<void**>(&s.devices)))) {
        error = "No sound service";
        close();
        return false;
    }
    s.device = s.find(source);
    if (!s.device) {
        error = "No sound source " + source;
        close();
        return false;
    }
    name = friendlyName(s.device);
    WAVEFORMATEX* mix = nullptr;
    if (FAILED(s.device->Activate(__uuidof(IAudioClient), CLSCTX_ALL, nullptr,
                                  reinterpret_cast<void**>(&s.client))) ||
        FAILED(s.client->GetMixFormat(&mix))) {
        error = "Cannot record " + name;
        close();
        return false;
    }
    channelCount = std::clamp<int>(mix->nChannels, 1, 2);
    CoTaskMemFree(mix);
    WAVEFORMATEXTENSIBLE format{};
    format.Format.wFormatTag = WAVE_FORMAT_EXTENSIBLE;
    format.Format.nChannels = static_cast<WORD>(channelCount);
    format.Format.nSamplesPerSec = sampleRate;
    format.Format.wBitsPerSample = 32;
    format.Format.nBlockAlign = static_cast<WORD>(channelCount * sizeof(float));
    format.Format.nAvgBytesPerSec = sampleRate * format.Format.nBlockAlign;
    format.Format.cbSize = sizeof format - sizeof format.Format;
    format.Samples.wValidBitsPerSample = 32;
    format.dwChannelMask =
        channelCount == 2 ? SPEAKER_FRONT_LEFT | SPEAKER_FRONT_RIGHT : SPEAKER_FRONT_CENTER;
    format.SubFormat = floatSamples;
    const DWORD flags = AUDCLNT_STREAMFLAGS_AUTOCONVERTPCM |
                        AUDCLNT_STREAMFLAGS_SRC_DEFAULT_QUALITY |
                        (s.loopback ? AUDCLNT_STREAMFLAGS_LOOPBACK : 0);
    const HRESULT initialised =
        s.client->Initialize(AUDCLNT_SHAREMODE_SHARED, flags, bufferDuration, 0,
                             reinterpret_cast<WAVEFORMATEX*>(&format), nullptr);
    if (FAILED(initialised) ||
        FAILED(s.client->GetService(__uuidof(IAudioCaptureClient),
                                    reinterpret_cast<void**>(&s.capture))) ||
        FAILED(s.client->Start())) {
        error = "Cannot record " + name;
        close();
        return false;
    }
    s.silence.assign(static_cast<std::size_t>(sampleRate / 1000 * blockMs * channelCount), 0.0f);
    s.lastSoundUs = steadyUs();
    return true;
}

bool AudioCapture::read(SoundBlock& block) {
    Session& s = *session;
    if (!s.capture) {
        error = "No sound source is open";
        return false;
    }
    if (s.held > 0)
        s.capture->ReleaseBuffer(s.held);
    s.held = 0;
    for (int waited = 0;; waited += blockMs) {
        UINT32 next = 0;
        const HRESULT looked = s.capture->GetNextPacketSize(&next);
        if (FAILED(looked)) {
            error = name + " went away";
            return false;
        }
        if (next > 0)
            break;
        // Loopback delivers nothing while nothing plays: that is silence, not a failure.
        const int64_t now = steadyUs();
        if (s.loopback && now - s.lastSoundUs >= 2 * blockMs * 1000) {
            s.lastSoundUs += blockMs * 1000;
            block.samples = s.silence.data();
            block.frames = static_cast<int>(s.silence.size()) / channelCount;
            block.recordedUs = s.lastSoundUs - blockMs * 1000;
            return true;
        }
        if (!s.loopback && waited >= waitLimitMs) {
            error = "No sound from " + name;
            return false;
        }
        if (WaitForSingleObject(s.wake, blockMs) == WAIT_OBJECT_0)
            return false;
    }
    BYTE* data = nullptr;
    UINT32 frames = 0;
    DWORD flags = 0;
    UINT64 recordedAt = 0;
    if (FAILED(s.capture->GetBuffer(&data, &frames, &flags, nullptr, &recordedAt))) {
        error = name + " went away";
        return false;
    }
    s.held = frames;
    LARGE_INTEGER counter;
    LARGE_INTEGER frequency;
    QueryPerformanceCounter(&counter);
    QueryPerformanceFrequency(&frequency);
    // The engine stamps the first frame with the performance counter in units of 100 ns.
    const int64_t counterNow = counter.QuadPart * 10000000 / frequency.QuadPart;
    const int64_t age = (flags & AUDCLNT_BUFFERFLAGS_TIMESTAMP_ERROR) || recordedAt == 0
                            ? int64_t(frames) * 1000000 / sampleRate
                            : (counterNow - static_cast<int64_t>(recordedAt)) / 10;
    if (s.silence.size() < std::size_t(frames) * channelCount)
        s.silence.resize(std::size_t(frames) * channelCount, 0.0f);
    block.samples = (flags & AUDCLNT_BUFFERFLAGS_SILENT) ? s.silence.data()
                                                         : reinterpret_cast<const float*>(data);
    block.frames = static_cast<int>(frames);
    block.recordedUs = steadyUs() - age;
    s.lastSoundUs = block.recordedUs + int64_t(frames) * 1000000 / sampleRate;
    return true;
}

void AudioCapture::interrupt() {
    interrupted = true;
    SetEvent(session->wake);
}

void AudioCapture::close() {
    Session& s = *session;
    if (s.client)
        s.client->Stop();
    if (s.capture && s.held > 0)
        s.capture->ReleaseBuffer(s.held);
    s.held = 0;
    release(s.capture);
    release(s.client);
    release(s.device);
    release(s.devices);
    if (s.com)
        CoUninitialize();
    s.com = false;
    channelCount = 0;
}

} // namespace platform
