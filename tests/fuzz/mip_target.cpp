// Drives prepared data and the maximum-intensity projector: any requests in any order.
#include "host/clipping.h"
#include "ip_volr/IP_MIPProjector.h"
#include "ip_volr/IP_MultiVolDataIncMIP.h"
#include "ip_volr/IP_VolRClipManager.h"
#include "tests/fuzz/fuzz_volume.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace {

using fuzz::Input;

class Host {
public:
    explicit Host(Input& input) : m_Input(input) { m_Second.m_MaxIntoOutput = 1; }
    ~Host() { IP_MIPProjector::FreePictures(&m_Params, &m_First, &m_Second); }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void Run() {
        SetVolumes();
        SetOutput();
        for (int i = 0; i < 24 && !m_Input.IsEmpty(); i++) {
            Step();
        }
        Draw();
    }

private:
    void Step() {
        switch (m_Input.Int(0, 12)) {
            case 0:
                SetVolumes();
                break;
            case 1:
                SetOutput();
                break;
            case 2:
                fuzz::MakeMatrix(m_Input, m_Params.m_ViewMatrix);
                break;
            case 3:
                m_Params.m_Zoom = m_Input.Float();
                m_Params.m_PanX = m_Input.Float();
                m_Params.m_PanY = m_Input.Float();
                break;
            case 4:
                m_Params.m_DepthCueing = m_Input.Int(0, 1);
                m_Params.m_DepthCueFloor = m_Input.Float();
                break;
            case 5:
                SetPlanes();
                break;
            case 6:
                Prepare();
                break;
            case 7:
                Refill();
                break;
            case 8:
                if (IP_VolData* const volume = m_Params.m_VolData->GetVolData(0)) {
                    fuzz::ChangeSlice(m_Input, *volume);
                    // What is prepared from a slice goes when the slice does.
                    Prepare();
                }
                break;
            case 9:
                Pick();
                break;
            default:
                Draw();
                break;
        }
    }

    void SetVolumes() {
        auto volumes = std::make_shared<IP_MultiVolData>();
        for (int i = m_Input.Int(0, 7) == 7 ? m_Input.Int(0, 3) : 1; i > 0; i--) {
            volumes->AddVolData(fuzz::MakeVolume(m_Input));
        }
        volumes->Reset();
        m_Params.m_VolData = volumes;
        MakeMasks();
        if (m_Input.Flag() || m_Params.m_AltVolData == nullptr) {
            m_Prepared = std::make_shared<IP_MultiVolDataIncMIP>();
        }
        m_Params.m_AltVolData = m_Prepared;
        Prepare();
    }

    // One mask for each volume, mostly over the same lattice.
    void MakeMasks() {
        auto set = std::make_unique<IP_MultiRealListVol>();
        for (int i = 0; i < m_Params.m_VolData->GetNVolData(); i++) {
            IP_Box box = *m_Params.m_VolData->GetVolData(i)->GetBox();
            if (m_Input.Int(0, 15) == 15) {
                box = IP_Box(m_Input.Int(0, 9), 5, 4);
            }
            auto mask = std::make_unique<IP_RealListVol>(box);
            for (int run = m_Input.Int(0, 9); run > 0; run--) {
                const int row = m_Input.Int(-1, 20);
                const int slice = m_Input.Int(-1, 20);
                const int first = m_Input.Int(-3, 60);
                mask->AddRun(row, slice, first, first + m_Input.Int(0, 30));
            }
            set->AddRealListVol(mask.get());
            m_Masks.push_back(std::move(mask));
        }
        m_MaskSets.push_back(std::move(set));
    }

    IP_MultiRealListVol* SomeMasks() { return m_Input.Flag() ? m_MaskSets.back().get() : nullptr; }

    // What the host says about a preparation.
    struct Preparation {
        explicit Preparation(Input& input)
            : pd_counter(input.Int(0, 2)),
              tissue_counter(input.Int(0, 2)),
              factor(input.Int(0, 3)),
              quality(input.Int(0, 2)),
              minimum(input.Int(-100, 100) * 330),
              flag(input.Flag()),
              is_lean(input.Int(0, 7) == 7) {}
        int pd_counter;
        int tissue_counter;
        int factor;
        int quality;
        int minimum;
        bool flag;
        bool is_lean;
    };

    void Prepare() {
        IP_MultiRealListVol* const masks = SomeMasks();
        const Preparation p(m_Input);
        fuzz::RunWithFault(m_Input, [&] {
            m_Prepared->Rebuild(m_Params.m_VolData.get(), masks, p.flag, p.factor, p.pd_counter, p.tissue_counter,
                                p.quality, p.is_lean, p.minimum);
        });
    }

    void Refill() {
        IP_MultiRealListVol* const masks = SomeMasks();
        const Preparation p(m_Input);
        IP_MultiVolData* const source = m_Params.m_VolData.get();
        fuzz::RunWithFault(m_Input, [&] {
            if (p.quality == 0) {
                m_Prepared->CopyFastFromSlow(source, masks, p.flag, p.pd_counter, p.tissue_counter, p.minimum);
            } else {
                m_Prepared->CopyWithTissue(source, masks, p.flag, p.pd_counter, p.tissue_counter, p.minimum, p.is_lean);
            }
        });
    }

    void SetOutput() {
        const unsigned shape = m_Input.Byte();
        m_Params.m_Width = shape > 250 ? m_Input.Int(-1, 200) : 1 + static_cast<int>(shape % 50);
        m_Params.m_Height = 1 + m_Input.Int(0, 50);
        m_Output.assign(static_cast<std::size_t>(std::max(0, m_Params.m_Width) * m_Params.m_Height), 0);
        m_Params.m_OutputImage = m_Input.Int(0, 15) == 15 ? nullptr : m_Output.data();
        m_Params.m_ViewMode = m_Input.Int(0, 3);
        m_Projector.Reset(&m_Params, m_Input.Int(0, 2));
    }

    void SetPlanes() {
        m_Planes.FreeAllClipPlane(m_Input.Int(0, 2));
        for (int i = m_Input.Int(0, 5); i > 0; i--) {
            const float equation[4] = {m_Input.Float(), m_Input.Float(), m_Input.Float(), m_Input.Float()};
            const int id = m_Input.Int(0, 5);
            m_Planes.SetClipPlane(id, equation);
            m_Planes.SetClipPlaneActive(id, m_Input.Flag());
        }
        m_Params.m_ClipManager = m_Input.Int(0, 15) == 15 ? nullptr : &m_Planes;
    }

    void Pick() {
        const int volume = m_Input.Int(-1, 2);
        const int linear = m_Input.Int(0, 1);
        const double x = static_cast<double>(m_Input.Float()) * 8;
        const double y = static_cast<double>(m_Input.Float()) * 8;
        IP_MIPPick pick;
        fuzz::RunWithFault(m_Input, [&] { m_Projector.Screen2Physical(&m_Params, volume, x, y, linear, &pick); });
    }

    void Draw() {
        const int threshold = m_Input.Int(-128, 127) * 256;
        const int linear = m_Input.Int(0, 1);
        const int volume = m_Input.Int(0, 7) == 7 ? 1 : 0;
        fuzz::RunWithFault(m_Input, [&] {
            m_Projector.Project(&m_Params, &m_First, &m_Second, linear, volume, threshold);
            m_Projector.Shear(&m_Params, &m_First, threshold);
            m_Projector.Shear(&m_Params, &m_Second, threshold);
        });
    }

    Input& m_Input;
    std::vector<std::unique_ptr<IP_RealListVol>> m_Masks;
    std::vector<std::unique_ptr<IP_MultiRealListVol>> m_MaskSets;
    std::shared_ptr<IP_MultiVolDataIncMIP> m_Prepared;
    IP_VolRClipManager m_Planes;
    std::vector<short> m_Output;
    IP_VolRParamsMIP m_Params;
    IP_VolRBoxParamsMIP m_First;
    IP_VolRBoxParamsMIP m_Second;
    IP_MIPProjector m_Projector;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    fuzz::RunCleanly([&] { Host(input).Run(); });
    return 0;
}
