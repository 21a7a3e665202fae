// libcorvalin's C++20 layer over the C core (corvalin_client.h): an open
// control device, device mappings and user memory as RAII objects, answers
// into host records and std::span buffers, results as an enum class.
//
// Results keep the C core's values: Result::Ok, the driver's codes 1..12,
// negative errnos and the library's CV_E_* values all fit (a value without
// an enumerator is still a valid Result; name() and text() describe it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

#include "corvalin_client.h"

namespace corvalin {

enum class Result : int {
	Ok = KIV_OK,
	NotInit = KIV_ERR_NOT_INIT,
	Invalid = KIV_ERR_INVALID,
	Refused = KIV_ERR_REFUSED,
	Unknown = KIV_ERR_UNKNOWN,
	NoMem = KIV_ERR_NOMEM,
	CopyIn = KIV_ERR_COPY_IN,
	CopyOut = KIV_ERR_COPY_OUT,
	NoFs = KIV_ERR_NO_FS,
	Busy = KIV_ERR_BUSY,
	Started = KIV_ERR_STARTED,
	Io = KIV_ERR_IO,
	// Negative errnos the commands are documented to produce.
	Perm = -1,      // a driver result of -1 (UNLOAD while in use)
	Fault = -14,    // -EFAULT (GET_DIRTY_BLOCK's final store)
	// The library's own.
	Addr32 = CV_E_ADDR32,
	LibNoMem = CV_E_NOMEM,
	LibFault = CV_E_FAULT,
	LibArg = CV_E_ARG,
	Closed = CV_E_CLOSED,
	NoSys = CV_E_NOSYS,
	Killed = CV_E_KILLED,
};

constexpr Result to_result(int r) { return static_cast<Result>(r); }
constexpr int to_int(Result r) { return static_cast<int>(r); }
inline std::string_view name(Result r) { return cv_result_name(to_int(r)); }
inline std::string_view text(Result r) { return cv_result_text(to_int(r)); }

// The transport of the real /dev/corvalin (refuses with Addr32 where
// pointers are wider than 32 bits).
inline const cv_transport *real_transport() { return cv_transport_real(); }

namespace detail {

// A range of the transport process's address space that a handle owns
// (user memory or a device mapping).  Moving it leaves the source empty;
// giving the range back is the owner's business.
struct Region {
	const cv_transport *tp = nullptr;
	cv_uaddr addr = 0;
	std::uint32_t len = 0;

	Region() = default;
	Region(const cv_transport *t, cv_uaddr a, std::uint32_t l)
	    : tp(t), addr(a), len(l)
	{
	}
	Region(Region &&other) noexcept
	    : tp(std::exchange(other.tp, nullptr)),
	      addr(std::exchange(other.addr, 0)),
	      len(std::exchange(other.len, 0))
	{
	}
	Region &operator=(Region &&other) noexcept
	{
		if (this != &other) {
			tp = std::exchange(other.tp, nullptr);
			addr = std::exchange(other.addr, 0);
			len = std::exchange(other.len, 0);
		}
		return *this;
	}
	Region(const Region &) = delete;
	Region &operator=(const Region &) = delete;

	// The process's loads of [offset, offset + dst.size()).
	Result read(std::uint32_t offset, std::span<std::byte> dst) const;
	// Whether [offset, offset + n) lies within the range.
	bool covers(std::uint32_t offset, std::size_t n) const
	{
		return offset <= len && n <= len - offset;
	}
};

}  // namespace detail

// User memory of the transport's process, freed at destruction.
class UserMemory {
public:
	UserMemory() = default;
	UserMemory(UserMemory &&other) noexcept = default;
	UserMemory &operator=(UserMemory &&other) noexcept;
	UserMemory(const UserMemory &) = delete;
	UserMemory &operator=(const UserMemory &) = delete;
	~UserMemory();

	static Result allocate(const cv_transport *tp, std::uint32_t len,
			       UserMemory &out);
	cv_uaddr address() const { return r_.addr; }
	std::uint32_t size() const { return r_.len; }
	explicit operator bool() const { return r_.tp != nullptr; }
	Result read(std::uint32_t offset, std::span<std::byte> dst) const
	{
		return r_.read(offset, dst);
	}
	Result write(std::uint32_t offset, std::span<const std::byte> src);
	void reset();

private:
	detail::Region r_;
};

// A mapping of the control device (the backup's read buffer), unmapped at
// destruction.  Reads go through the transport as the process's own loads.
class Mapping {
public:
	Mapping() = default;
	Mapping(Mapping &&other) noexcept = default;
	Mapping &operator=(Mapping &&other) noexcept;
	Mapping(const Mapping &) = delete;
	Mapping &operator=(const Mapping &) = delete;
	~Mapping();

	cv_uaddr address() const { return r_.addr; }
	std::uint32_t size() const { return r_.len; }
	explicit operator bool() const { return r_.tp != nullptr; }
	Result read(std::uint32_t offset, std::span<std::byte> dst) const
	{
		return r_.read(offset, dst);
	}
	// Unmap now; the result of munmap.
	Result unmap();

private:
	friend class Device;
	detail::Region r_;
};

// An open control device: one file, one backup record in the driver.
class Device {
public:
	Device() = default;
	Device(Device &&other) noexcept;
	Device &operator=(Device &&other) noexcept;
	Device(const Device &) = delete;
	Device &operator=(const Device &) = delete;
	~Device();  // closes the file if open

	Result open(const cv_transport *tp, const char *path = CV_DEVICE_PATH);
	Result close();
	bool is_open() const { return dev_.fd >= 0; }
	int fd() const { return dev_.fd; }
	cv_device *raw() { return &dev_; }
	const cv_transport *transport() const { return dev_.tp; }

	// The sixteen commands; `len` is the answer area the driver is told.
	Result block_size(std::uint32_t major, std::uint32_t minor, BlockSize &out,
			  std::uint32_t len = sizeof(BlockSize));
	Result start_backup(std::uint32_t major, std::uint32_t minor,
			    std::uint32_t totalBlocks,
			    std::uint32_t maxCacheBlocks);
	Result snapshot(const AMSessionKey *key,
			std::uint32_t len = sizeof(AMSessionKey));
	Result state(State &out, std::uint32_t len = sizeof(State));
	Result automap_state(AutoMapState &out,
			     std::uint32_t len = sizeof(AutoMapState));
	Result no_load_from_automap();
	Result no_start_automap();
	// Bitmaps of mapLen blocks: the span holds at least
	// cv_bitmap_bytes(mapLen) bytes.
	Result load_block_map(std::span<const std::uint8_t> map,
			      std::uint32_t mapLen);
	Result load_block_map_at(cv_uaddr map, std::uint32_t mapLen);
	Result automap(std::span<std::uint8_t> map, std::uint32_t mapLen);
	Result automap_at(cv_uaddr map, std::uint32_t mapLen);
	Result dirty_block(std::uint32_t &blockNum);
	Result read_blocks(std::uint32_t startBlockNum, std::uint32_t numBlocks,
			   cv_uaddr data);
	Result version_major(std::uint32_t &v);
	Result version_minor(std::uint32_t &v);
	Result sync();
	Result unload();
	Result command_16();
	Result ioctl(std::uint32_t code, cv_uaddr arg);

	// mmap of the device; on success `out` owns the mapping.
	Result map(std::uint32_t len, Mapping &out, int prot = CV_PROT_READ,
		   int flags = CV_MAP_PRIVATE, std::uint32_t pgoff = 0);
	// User memory in the same process as the device's file.
	Result allocate(std::uint32_t len, UserMemory &out);

private:
	cv_device dev_{nullptr, -1, 0};
};

}  // namespace corvalin
