// Drives the ray-casting facade: any calls in any order, on tiny volumes with odd places, tables, planes and matrices.
#include "host/clipping.h"
#include "ip_volr/IP_VOLRC_VolumeRenderingRC.h"
#include "tests/fuzz/fuzz_volume.h"

#include <algorithm>
#include <list>
#include <vector>

namespace {

using fuzz::Input;
using Facade = IP_VOLRC_VolumeRenderingRC;

// A host: the facade and what must live as long as it is in use.
class Host {
public:
    explicit Host(Input& input) : m_Input(input) {}
    ~Host() {
        m_Facade.reset();
        if (m_EngineData != nullptr) {
            Facade::DeallocateEngineSpecificData(m_EngineData);
        }
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // A picture as most hosts draw it, then whatever the input says.
    void Run() {
        SetVolume();
        m_Facade->SetMaxLayerLoaded(m_Input.Int(0, 4));
        SetTables();
        SetView();
        for (int i = 0; i < 24 && !m_Input.IsEmpty(); i++) {
            Step();
        }
        Render();
    }

private:
    void Step() {
        switch (m_Input.Int(0, 19)) {
            case 0:
                SetVolume();
                break;
            case 1:
                m_Facade->SetMaxLayerLoaded(m_Input.Int(-2, 5));
                break;
            case 2:
                SetTissues();
                break;
            case 3:
            case 4:
                SetView();
                break;
            case 5:
                m_Facade->SetLightingMode(static_cast<Facade::LightingMode>(m_Input.Int(0, 2)));
                break;
            case 6:
                SetTables();
                break;
            case 7:
                SetPlanes();
                break;
            case 8:
                m_Facade->SetRenderMode(static_cast<Facade::RenderMode>(m_Input.Int(0, 2)));
                break;
            case 9:
                m_Facade->SetVolrQuality(static_cast<Facade::RenderQuality>(m_Input.Int(0, 2)));
                break;
            case 10:
                m_Facade->SetInteractiveQuality(static_cast<Facade::IntercativeQuality>(m_Input.Int(0, 3)));
                break;
            case 11:
                m_Facade->AdjustRenderingTime(static_cast<double>(m_Input.Float()));
                break;
            case 12:
                Ask();
                break;
            case 13:
                if (m_Volume != nullptr) {
                    fuzz::ChangeSlice(m_Input, *m_Volume);
                    m_Facade->BoxUpdated();
                }
                break;
            case 14:
                UpdateSlices();
                break;
            case 15:
                ExchangeEngineData();
                break;
            default:
                Render();
                break;
        }
    }

    void SetVolume() {
        auto volumes = std::make_unique<IP_MultiVolData>();
        m_Volume = nullptr;
        for (int i = m_Input.Int(0, 15) == 15 ? m_Input.Int(0, 2) : 1; i > 0; i--) {
            volumes->AddVolData(fuzz::MakeVolume(m_Input));
        }
        int index = 0;
        m_Volume = volumes->GetBiggestVolData(index);
        IP_MultiVolData* const given = m_Input.Int(0, 15) == 15 ? nullptr : volumes.get();
        const bool is_signed = m_Input.Flag();
        fuzz::RunWithFault(
            m_Input, [&] { m_Facade->SetVolumeData(given, is_signed); },
            fuzz::Mappings::MayStay);  // the projector stays mapped
        m_Sets.push_back(std::move(volumes));
    }

    void SetTissues() {
        auto tissues = std::make_unique<IP_MultiVolData>();
        if (m_Volume != nullptr) {
            tissues->AddVolData(fuzz::MakeTissues(m_Input, *m_Volume));
        }
        m_Facade->SetVolumeTissues(m_Input.Int(0, 7) == 7 ? nullptr : tissues.get());
        m_Sets.push_back(std::move(tissues));
    }

    void SetView() {
        float m[4][4];
        if (m_Input.Flag()) {
            fuzz::MakeMatrix(m_Input, m);
            m_Facade->SetProjection(m);
        }
        if (m_Input.Flag()) {
            fuzz::MakeMatrix(m_Input, m);
        } else {
            const float scale = m_Input.Float();
            const float middle = m_Input.Float() * 4;
            const float plain[4][4] = {{scale, 0, 0, 0}, {0, scale, 0, 0}, {0, 0, 1, 0}, {middle, middle, 0, 1}};
            std::memcpy(m, plain, sizeof(m));
        }
        m_Facade->Set2DTransform(m);
        double light[3] = {static_cast<double>(m_Input.Float()), static_cast<double>(m_Input.Float()), 0.5};
        m_Facade->SetLightDirection(light);
    }

    // Tables as long as they are said to be. A pointer designates value 0: with half a table before and a whole one
    // behind, signed and unsigned voxels can be looked up.
    void SetTables() {
        const int bits = m_Input.Int(0, 7) == 7 ? m_Input.Int(1, 16) : m_Input.Int(8, 10);
        const std::size_t half = (std::size_t{1} << bits) / 2;
        const std::size_t entries = 3 * half;
        auto colours = std::make_unique<std::vector<unsigned>>(entries);
        auto weights = std::make_unique<std::vector<unsigned long long>>(entries);
        const unsigned opaque = m_Input.Byte() << 24;
        const unsigned step = m_Input.Byte() + 1;
        for (std::size_t i = 0; i < entries; i++) {
            (*colours)[i] = i / 64 % step == 0 ? opaque + static_cast<unsigned>(i) * 977U : 0x01020304U * (step % 60);
            (*weights)[i] = i * 0x0001000300070001ULL * step;
        }
        const unsigned* colour[16];
        const unsigned long long* weight[16];
        const unsigned given = m_Input.Byte();
        for (unsigned i = 0; i < 16; i++) {
            colour[i] = given == 255 && i % 3 == 0 ? nullptr : colours->data() + half;
            weight[i] = (given >> (i % 8) & 1U) != 0 ? weights->data() + half : nullptr;
        }
        m_Facade->SetColorTables(colour, weight, bits, false);
        m_Colours.push_back(std::move(colours));
        m_Weights.push_back(std::move(weights));
    }

    void SetPlanes() {
        IP_ClipManager planes;
        for (int i = m_Input.Int(0, 9); i > 0; i--) {
            const float equation[4] = {m_Input.Float(), m_Input.Float(), m_Input.Float(), m_Input.Float()};
            IP_ClippingPlane* const plane = planes.NewClipPlane(m_Input.Int(-1, 12));
            plane->SetPlaneEq(equation);
            plane->SetActive(m_Input.Int(0, 7) != 7);
        }
        m_Facade->SetClippingPlanes(m_Input.Int(0, 15) == 15 ? nullptr : &planes);
    }

    void Ask() {
        const IP_3Coord point{m_Input.Float(), m_Input.Float(), m_Input.Float()};
        m_Facade->IsVisible(point, m_Input.Float());
        m_Facade->IsCacheValid();
        double v[3];
        m_Facade->GetViewVector(v);
        char text[256];
        m_Facade->GetInformationString(text);
        m_Facade->LastRenderTime();
    }

    void UpdateSlices() {
        auto slices = std::make_unique<std::list<int>>();
        for (int i = m_Input.Int(0, 6); i > 0; i--) {
            slices->push_back(m_Input.Int(-5, 100));
        }
        if (m_Volume != nullptr && m_Input.Flag()) {
            fuzz::ChangeSlice(m_Input, *m_Volume);
            m_Facade->BoxUpdated();  // slices are other objects now
        }
        m_Facade->SetUpdatedSliceIndexList(slices.get());
        m_Lists.push_back(std::move(slices));
    }

    void ExchangeEngineData() {
        if (m_EngineData == nullptr) {
            m_Facade->AllocateEngineSpecificData(m_EngineData);
        }
        m_Facade->SetEngineSpecificData(m_Input.Flag() ? m_EngineData : nullptr);
    }

    void Render() {
        const unsigned shape = m_Input.Byte();
        const int width = shape == 255 ? m_Input.Int(-1, 1) : shape > 250 ? 300 : 1 + static_cast<int>(shape % 40);
        const int height = shape == 254 ? m_Input.Int(-1, 1) : 1 + m_Input.Int(0, 40);
        std::vector<unsigned> picture(static_cast<std::size_t>(std::max(0, width) * std::max(0, height)), 0x11223344U);
        fuzz::RunWithFault(
            m_Input,
            [&] {
                const std::vector<unsigned> before = picture;
                const bool is_drawn =
                    m_Facade->Render(m_Input.Int(0, 31) == 31 ? nullptr : picture.data(), width, height);
                fuzz::Require(is_drawn || picture == before);
            },
            fuzz::Mappings::MayStay);  // rasters of a quality stay mapped
    }

    Input& m_Input;
    std::unique_ptr<Facade> m_Facade = std::make_unique<Facade>(0, 0);
    void* m_EngineData = nullptr;
    IP_VolData* m_Volume = nullptr;  // of the current set
    std::vector<std::unique_ptr<IP_MultiVolData>> m_Sets;
    std::vector<std::unique_ptr<std::vector<unsigned>>> m_Colours;
    std::vector<std::unique_ptr<std::vector<unsigned long long>>> m_Weights;
    std::vector<std::unique_ptr<std::list<int>>> m_Lists;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    fuzz::RunCleanly([&] { Host(input).Run(); });
    return 0;
}
