// Prepared projection data: a reduced or full copy of a volume in pageable blocks, turned as the projection needs it.
#pragma once

#include "host/images.h"
#include "host/tasks.h"
#include "ip_volr/IP_SliceChunk.h"
#include "ip_volr/IP_SliceIDInfo.h"
#include "ip_volr/IP_VOLR_Export.h"

#include <atomic>
#include <memory>
#include <utility>
#include <vector>

// Base of every prepared copy of a volume.
//
// Slice array, with Z the number of slices of the source and W = max(2, servers at creation):
//
//   [ 0 ... Z-1 ]      prepared slices, padded to chunk X times chunk Y, each in its own orientation
//   [ Z ... Z+W-1 ]    work slices, one per worker: the block into which a slice is transposed
//   [ Z+W ... Z+2W-1 ] temp slices, one per worker: one slice at full resolution (factor times chunk X and chunk Y)
//
// Orientation. A prepared slice lies row by row (XY: chunk Y rows of chunk X voxels) or transposed (YX: chunk X rows of
// chunk Y voxels) in a block of the same size. Its identity record tells which: the slices of one volume may differ.
// Transposing rotates the blocks through a worker's slices and its work slice; each operation ends with the work slices
// on the blocks of the work chunk again, also when it was cancelled.
//
// Prepared slices carry the source slice's bits and signedness, and their padded size as width and height.
//
// Reuse. The caller's hash map finds the record of a slice by its identity text. A block serves a slice again when text
// and shape (sizes, factor, pixel size) agree; it is filled again only when a counter of its record is not the current
// one. Slices without text, and further slices with a text that the volume already has, get blocks that nothing finds.
// Two volumes with slices of one text share their blocks, with the orientation and the tissue of the last operation on
// either; the other one follows when it is turned or refilled itself, and its slices must not be read before.
//
// Ownership. The object that was created owns its slice objects and its chunks (see ClearChunks), and through them the
// blocks. A copy is a view: it refers to the same slice objects and source, owns no slices and no chunks, and must not
// outlive what it shows. The hash map must outlive the object, the source only needs to live while it is copied from.
//
// Threads. One driving thread; operations on one object must not overlap. The workers of an operation own disjoint
// slices, records and work slices; only the driving thread touches the hash map.
//
// Cancellation leaves as TCO_CANCEL_EXCEPTION unless said otherwise, with everything unmapped, every record true, and
// the object fit for the same operation again. After a failed or cancelled creation the object must not be projected.
class IP_VOLR_EXPORT IP_VolDataProj : public IP_VolData, public TCO_CompoundRunnable<IP_VolDataProj> {
public:
    IP_VolDataProj();
    explicit IP_VolDataProj(IP_Box* box);
    IP_VolDataProj(const IP_VolDataProj& o);
    // A view on another volume as its not-transposed (false) or transposed (true) part, with its own boxes.
    IP_VolDataProj(const IP_VolDataProj& o, bool transposed, float bytes_per_pixel);
    IP_VolDataProj& operator=(const IP_VolDataProj& o);
    ~IP_VolDataProj() override;

    // Transposes the slices [first, last), whatever their orientation, in batches of at most 5000 MiB (at least one
    // slice). When mapping fails the batches done stay done and the rest is left alone; an error line says so. So it is
    // when there is no memory.
    virtual void Transpose(int first, int last);

    // Brings the slices [first, last) to the wanted orientation; touches only those that differ.
    virtual void CheckAndTransposed(int first, int last, bool wanted);

    // Compound-task bodies: refill of this worker's share.
    virtual void subtask_copy_slices();
    virtual void subtask_copy_slices_with_tissue_fast();

    // ---- Creation. True when every slice is there.

    // Reuses, allocates and copies in parallel. factor: reduction in x and y, 1 or 2 (any other prepares nothing);
    // transposed: orientation in which slow data is left; counters: the host's versions of pixel data and tissues, from
    // 1; render quality: 0 fast copies, 1 slow ones, any other copies nothing. False when memory is refused, by the
    // pager or by the standard library.
    bool Create(const IP_VolData& source, SliceHashMap& map, bool new_tissue, int factor, bool transposed,
                int pd_counter, int tissue_counter, int render_quality, float bytes_per_pixel);
    // Builds boxes, slice objects, work and temp chunk; the slices have no blocks and nothing is copied.
    bool LeanCreate(const IP_VolData& source, SliceHashMap& map, bool new_tissue, int factor, bool transposed,
                    int pd_counter, int tissue_counter, int render_quality, float bytes_per_pixel);

    // Current box := prepared box; direction := original.
    void Reset();

    // ---- Refill with tissue

    // Refills every slice with tissue in batches, reduced. False when mapping fails or there is no memory.
    bool CopyFastFromSlow(IP_VolData* source, bool transposed, int pd_counter, int tissue_counter, int reserved);
    // Refills every slice with tissue at full size. With run false only the counters and the source are taken over.
    // False when mapping fails, there is no memory, or when cancelled (the exception goes no further).
    bool CopyWithTissue(IP_VolData* source, bool transposed, int pd_counter, int tissue_counter, bool run);

    // ---- Orientation

    bool CheckTransposed(bool wanted);  // transposes all slices unless they are held as wanted; true

    // Transposes slice `slice` into work slice `work` (position Z + work), which then holds it in the orientation that
    // the slice has not; the slice itself stays. The work slice is free again once any slice of this volume is
    // transposed in place. False when an index is out of range, a block is missing or mapping fails.
    bool Transpose2WorkSlice(int slice, int work);

    // Orientation of a prepared slice: true when it is transposed. False also for a slice without block.
    bool IsSliceTransposed(int slice) const;

    // Whether no slice of [first, last) lies the other way round: what CheckAndTransposed leaves unless mapping failed.
    bool AreSlicesTransposed(int first, int last, bool wanted) const;

    // Makes this view show the slices [first, last) of `whole`: they keep their positions in the slice array (the
    // others are null, work and temp slices stay), the first slice index becomes `first`, and both boxes are cut along
    // z to these slices. An empty range leaves boxes without slices. The bounds of `whole` are shared. Only for views.
    void ShowSlices(IP_VolDataProj& whole, int first, int last);

    // Exchanges two axes of a box: vectors with their lengths, and dimensions.
    static void switch_dirs(IP_Box* box, int a, int b);

    // The direction is what a projector asks for; it need not be how the slices lie. False: x y z; true: y x z.
    bool GetCurrentDir() const { return m_CurrentDir; }
    void FlipCurrentDir();
    void SetDirOriginal();

    IP_Box* GetCurrentBox() { return &m_TransposedBox; }     // the prepared box as seen in the current direction
    IP_Box* GetTransposedBox() { return &m_TransposedBox; }  // the same; of a transposed view: with x and y exchanged

    // ---- Clipping bounds
    //
    // Inclusive bounds of the voxels inside all clip planes, one pair [first, last] per line, first > last when nothing
    // is left. For slice s and row r the pair stands at 2 * (s * rows + r); a whole array has 2 * slices * rows
    // entries.
    //
    //   XY      32 bit  lines of the padded, prepared slices (all Z): rows = chunk Y, positions 0 to chunk X - 1
    //   YX      32 bit  lines of the same slices transposed:           rows = chunk X, positions 0 to chunk Y - 1
    //   XY Lin  16 bit  lines of the source slices at full size:       rows = source Y, positions 0 to source X - 1
    //   YX Lin  16 bit  lines of the source slices transposed:         rows = source X, positions 0 to source Y - 1
    //
    // Slices count from 0 as in the slice array, also for a view of part of them. A setter takes ownership of an array
    // made with new[] (null clears) and releases the one before; views share arrays, the last holder frees them. Every
    // creation clears them: whoever sets them does so again when a getter returns null. Without memory a setter frees
    // the array, keeps the one before and throws std::bad_alloc.
    void SetXYCBounds(int* bounds);
    void SetYXCBounds(int* bounds);
    void SetXYCBoundsLin(short* bounds);
    void SetYXCBoundsLin(short* bounds);
    int* GetXYCBounds() const { return m_XYCBounds.get(); }
    int* GetYXCBounds() const { return m_YXCBounds.get(); }
    short* GetXYCBoundsLin() const { return m_XYCBoundsLin.get(); }
    short* GetYXCBoundsLin() const { return m_YXCBoundsLin.get(); }
    int* GetCurrentCBounds() const { return m_CurrentDir ? GetYXCBounds() : GetXYCBounds(); }
    short* GetCurrentCBoundsLin() const { return m_CurrentDir ? GetYXCBoundsLin() : GetXYCBoundsLin(); }
    // All four at once, which cannot fail; in the order above.
    void SetBounds(std::shared_ptr<int[]> xy, std::shared_ptr<int[]> yx, std::shared_ptr<short[]> xy_lin,
                   std::shared_ptr<short[]> yx_lin);
    void DisconnectBounds();                        // lets go of all four
    void ShareBounds(const IP_VolDataProj& other);  // refers to the bounds of another volume

    // ---- Access

    const std::vector<IP_SliceChunk*>& GetChunks() const { return m_Chunks; }  // 0: work chunk; then slice chunks
    void ClearChunks();  // drops all but the work chunk without freeing them: the caller has taken them over

    // Work and temp chunk of a volume that is done with, for the next one of the same shape: allocating them anew costs
    // more than a slice. The volume that gives them away must not be used any more; offered chunks that do not fit the
    // next creation are freed by it.
    struct WorkerChunks {
        std::unique_ptr<IP_SliceChunk> work;
        std::unique_ptr<IP_SliceChunk> temp;
    };
    WorkerChunks ReleaseWorkerChunks();
    void OfferWorkerChunks(WorkerChunks chunks) { m_OfferedChunks = std::move(chunks); }

    IP_VolData* GetCurrVolData() const { return m_OrigVolData; }  // source, not owned
    void SetOrigVolData(IP_VolData* source) { m_OrigVolData = source; }

    int GetNumberSlices() const { return m_NumbSlices; }  // Z of the source
    int GetOrigX() const { return m_ReducedX; }  // voxels that hold data inside the padded slice, not transposed
    int GetOrigY() const { return m_ReducedY; }
    int GetChunkX() const { return static_cast<int>(m_ChunkX); }  // padded size, not transposed
    int GetChunkY() const { return static_cast<int>(m_ChunkY); }
    int GetFactor() const { return m_Factor; }                                      // reduction in x and y, 1 or 2
    int GetNumberWorkSlices() const { return static_cast<int>(m_NumbWorkSlices); }  // W
    const IP_Box& GetSourceBox() const { return m_SourceBox; }                      // the source's box at the creation

protected:
    // ---- Supplied by the subclass. The copies return whether the destination now holds the slice: a source without
    // memory counts as copied (background), one that has memory and cannot be mapped does not.

    // A slice of the subclass's pixel kind over a block (null allowed).
    virtual IP_Slice* create_new_slice(MEM_PagerInfo* block, PixelDataAttributes& attributes) = 0;
    virtual bool copy_slice(IP_Slice* destination, int destination_x, int destination_y, IP_Slice* source, int source_x,
                            int source_y) = 0;
    virtual bool copy_slice_with_tissue(IP_Slice* destination, int destination_x, int destination_y, IP_Slice* source,
                                        int source_x, int source_y, int slice_index) = 0;
    // Both mapped: transposes the slice (x pixels a row, y rows) into the work slice's block, exchanges the blocks.
    virtual void transpose_slice_swap_data(IP_Slice* slice, IP_Slice* work_slice, int x, int y) = 0;
    // Both mapped: copies the slice's pixels into the work slice's block and exchanges the blocks.
    virtual void reestablish_working_mem(IP_Slice* slice, IP_Slice* work_slice) = 0;
    virtual bool copy_fast_slice(IP_Slice* destination, IP_Slice* source, int x, int y) = 0;
    virtual bool copy_slice_with_tissue_fast(IP_Slice* source, IP_Slice* destination, IP_Slice* temp_slice,
                                             int slice_index, int x, int y) = 0;
    // Maps both, transposes the slice into the work slice, unmaps both. False when one cannot be mapped.
    virtual bool transpose_slice(IP_Slice* slice, IP_Slice* work_slice, int x, int y) = 0;

    // ---- Hooks

    // Called before and after each preparation with the prepared box; does nothing here.
    virtual void update_slow_opacity_bvs(const IP_Box* box, int render_quality);
    // What Transpose does to slice `index` (both mapped; x, y: padded size, not transposed): transposes it into the
    // work slice's block, exchanges the blocks with their records, and returns the work slice's record.
    virtual IP_SliceIDInfo* fast_slice_transpose_with_hash_update(IP_Slice* slice, IP_Slice* work_slice,
                                                                  IP_SliceIDInfo* work_record, int x, int y, int index);
    // Whether a slice that is filled anew must be filled with tissue even if no tissue changed.
    virtual bool applies_tissue() const;

    // Everything of Create up to the copy.
    bool prepare_create(const IP_VolData& source, SliceHashMap& map, bool new_tissue, int factor, bool transposed,
                        int pd_counter, int tissue_counter, int render_quality, float bytes_per_pixel);

    // Runs a method on all workers, at most one subtask per work slice.
    void run_subtasks(void (IP_VolDataProj::*method)());

    IP_SliceIDInfo* slice_record(int index) const;  // null for a slice without block
    const std::vector<unsigned>& index_array() const { return m_IndexArray; }

    bool m_Transposed = false;     // orientation in which the slices are wanted or held
    IP_Box m_TransposedBox;        // the prepared box in the current direction
    float m_BytesPerPixel = 0.0F;  // of the prepared slices; less than 1 for packed voxels
    int m_ReducedX = 0;            // source size divided by the factor
    int m_ReducedY = 0;
    int m_NumbSlices = 0;                // Z
    unsigned m_NumbWorkSlices = 0;       // W
    unsigned m_NumbNewSlices = 0;        // how many slices this preparation must fill
    std::vector<unsigned> m_IndexArray;  // which, in ascending order
    bool m_NewTissue = false;            // every slice is filled anew, with tissue
    int m_Factor = 0;                    // reduction in x and y, 1 or 2
    int m_PDCounter = 0;                 // versions of the source, which records are held to
    int m_TissueCounter = 0;
    unsigned m_ChunkX = 0;  // padded size
    unsigned m_ChunkY = 0;
    int m_RenderQuality = 0;               // 0 fast copies, 1 slow ones
    std::vector<IP_SliceChunk*> m_Chunks;  // owned; 0 is the work chunk
    SliceHashMap* m_Map = nullptr;         // the caller's
    IP_VolData* m_OrigVolData = nullptr;   // source, not owned

private:
    struct Worker;
    class WorkBlockKeeper;

    void release_slices();
    void release();
    void copy_view(const IP_VolDataProj& o);
    int start_index() const;
    bool is_built() const;
    PreparedSliceShape shape() const;

    // Creation (IP_VolDataProj.cpp and IP_VolDataProjBuild.cpp).
    void set_params(const IP_VolData& source, SliceHashMap& map, bool new_tissue, int factor, bool transposed,
                    int pd_counter, int tissue_counter, int render_quality, float bytes_per_pixel);
    void find_existed_slices_data();
    IP_SliceIDInfo* find_record(const char* id) const;
    void build_ind_array(bool all_slices);
    bool build_chunks(bool allocate);
    IP_SliceChunk* build_worker_chunk(const char* log_line, int scale, std::unique_ptr<IP_SliceChunk> offered);
    bool build_slice_chunks();
    void drop_new_chunks();
    void build_slices(bool allocate);
    void build_new_slices(bool allocate);
    IP_Slice* new_slice(MEM_PagerInfo* block, int source_index, int scale);
    void build_worker_slices(IP_SliceChunk& chunk, int position, int scale);
    bool register_record(IP_SliceIDInfo& record);

    // Copies (IP_VolDataProjCopy.cpp).
    Worker worker(int subtask) const;
    void copy_fast_slices(const Worker& w, int first, int last);
    void copy_slow_slices(const Worker& w, int first, int last);
    void fill_fast(const Worker& w, int index);
    void fill_slow(const Worker& w, int index);
    void fill_with_tissue(const Worker& w, int index);
    template <class Copy>
    void note_fill(int index, const Copy& copy);
    void orient_slices(const Worker& w, int first, int last);
    void subtask_copy_slices_with_tissue_slow();
    bool begin_refill(IP_VolData* source, bool transposed, int pd_counter, int tissue_counter);

    // Orientation (IP_VolDataProjTranspose.cpp).
    void subtask_transpose();
    void subtask_check_transpose();
    void transpose_in_batches(int first, int last, bool check);
    int batch_size() const;
    void follow_record(int index);
    void follow_records();
    int count_oriented(int first, int last, bool transposed) const;
    IP_SliceIDInfo* slice_transpose_with_hash_update(int index, IP_Slice* work_slice, IP_SliceIDInfo* work_record);
    void reestablish_working_mem_with_hash_update(int index, IP_Slice* work_slice, IP_SliceIDInfo* work_record);

    bool m_CurrentDir = false;
    IP_Box m_SourceBox;                      // of the source at the creation
    IP_SliceChunk* m_TempChunk = nullptr;    // owned
    WorkerChunks m_OfferedChunks;            // for the next creation
    std::size_t m_FirstNewChunk = 1;         // first chunk of this preparation in m_Chunks
    std::vector<IP_SliceIDInfo*> m_Records;  // of the prepared slices, in the chunks; null without block
    int m_BatchFirst = 0;                    // slices of the batch in progress, [first, last)
    int m_BatchLast = 0;
    std::atomic<int> m_NumbNotCopied{0};  // slices that could not be filled for want of a mapping
    std::shared_ptr<int[]> m_XYCBounds;
    std::shared_ptr<int[]> m_YXCBounds;
    std::shared_ptr<short[]> m_XYCBoundsLin;
    std::shared_ptr<short[]> m_YXCBoundsLin;
};
