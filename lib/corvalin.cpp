// libcorvalin's C++20 layer: thin RAII wrappers over the C core.
#include "corvalin.hpp"

#include <utility>

namespace corvalin {

// --- Region -----------------------------------------------------------

Result detail::Region::read(std::uint32_t offset,
			    std::span<std::byte> dst) const
{
	if (tp == nullptr || !covers(offset, dst.size()))
		return Result::LibArg;
	return to_result(tp->ops->mem_read(tp->ctx, addr + offset, dst.data(),
					   static_cast<std::uint32_t>(dst.size())));
}

// --- UserMemory -------------------------------------------------------

UserMemory &UserMemory::operator=(UserMemory &&other) noexcept
{
	if (this != &other) {
		reset();
		r_ = std::move(other.r_);
	}
	return *this;
}

UserMemory::~UserMemory() { reset(); }

void UserMemory::reset()
{
	if (r_.tp != nullptr)
		(void)r_.tp->ops->mem_free(r_.tp->ctx, r_.addr, r_.len);
	r_ = detail::Region();
}

Result UserMemory::allocate(const cv_transport *tp, std::uint32_t len,
			    UserMemory &out)
{
	if (tp == nullptr)
		return Result::LibArg;
	cv_uaddr addr = 0;
	const int r = tp->ops->mem_alloc(tp->ctx, len, &addr);
	if (r != 0)
		return to_result(r);
	out.reset();
	out.r_ = detail::Region(tp, addr, len);
	return Result::Ok;
}

Result UserMemory::write(std::uint32_t offset, std::span<const std::byte> src)
{
	if (r_.tp == nullptr || !r_.covers(offset, src.size()))
		return Result::LibArg;
	return to_result(r_.tp->ops->mem_write(
		r_.tp->ctx, r_.addr + offset, src.data(),
		static_cast<std::uint32_t>(src.size())));
}

// --- Mapping ----------------------------------------------------------

Mapping &Mapping::operator=(Mapping &&other) noexcept
{
	if (this != &other) {
		(void)unmap();
		r_ = std::move(other.r_);
	}
	return *this;
}

Mapping::~Mapping() { (void)unmap(); }

Result Mapping::unmap()
{
	if (r_.tp == nullptr)
		return Result::Ok;
	const int r = r_.tp->ops->munmap(r_.tp->ctx, r_.addr, r_.len);
	r_ = detail::Region();
	return to_result(r);
}

// --- Device -----------------------------------------------------------

Device::Device(Device &&other) noexcept : dev_(other.dev_)
{
	other.dev_ = cv_device{nullptr, -1, 0};
}

Device &Device::operator=(Device &&other) noexcept
{
	if (this != &other) {
		(void)close();
		dev_ = std::exchange(other.dev_, cv_device{nullptr, -1, 0});
	}
	return *this;
}

Device::~Device() { (void)close(); }

Result Device::open(const cv_transport *tp, const char *path)
{
	(void)close();
	return to_result(cv_open(&dev_, tp, path));
}

Result Device::close()
{
	if (!is_open())
		return Result::Ok;
	return to_result(cv_close(&dev_));
}

Result Device::block_size(std::uint32_t major, std::uint32_t minor,
			  BlockSize &out, std::uint32_t len)
{
	return to_result(cv_get_block_size(&dev_, major, minor, &out, len));
}

Result Device::start_backup(std::uint32_t major, std::uint32_t minor,
			    std::uint32_t totalBlocks,
			    std::uint32_t maxCacheBlocks)
{
	return to_result(cv_start_backup(&dev_, major, minor, totalBlocks,
					 maxCacheBlocks));
}

Result Device::snapshot(const AMSessionKey *key, std::uint32_t len)
{
	return to_result(cv_snapshot(&dev_, key, len));
}

Result Device::state(State &out, std::uint32_t len)
{
	return to_result(cv_get_state(&dev_, &out, len));
}

Result Device::automap_state(AutoMapState &out, std::uint32_t len)
{
	return to_result(cv_get_automap_state(&dev_, &out, len));
}

Result Device::no_load_from_automap()
{
	return to_result(cv_no_load_from_automap(&dev_));
}

Result Device::no_start_automap()
{
	return to_result(cv_no_start_automap(&dev_));
}

Result Device::load_block_map(std::span<const std::uint8_t> map,
			      std::uint32_t mapLen)
{
	if (map.size() < cv_bitmap_bytes(mapLen))
		return Result::LibArg;
	return to_result(cv_load_block_map(&dev_, map.data(), mapLen));
}

Result Device::load_block_map_at(cv_uaddr map, std::uint32_t mapLen)
{
	return to_result(cv_load_block_map_at(&dev_, map, mapLen));
}

Result Device::automap(std::span<std::uint8_t> map, std::uint32_t mapLen)
{
	if (map.size() < cv_bitmap_bytes(mapLen))
		return Result::LibArg;
	return to_result(cv_get_automap(&dev_, map.data(), mapLen));
}

Result Device::automap_at(cv_uaddr map, std::uint32_t mapLen)
{
	return to_result(cv_get_automap_at(&dev_, map, mapLen));
}

Result Device::dirty_block(std::uint32_t &blockNum)
{
	return to_result(cv_get_dirty_block(&dev_, &blockNum));
}

Result Device::read_blocks(std::uint32_t startBlockNum,
			   std::uint32_t numBlocks, cv_uaddr data)
{
	return to_result(cv_read_blocks(&dev_, startBlockNum, numBlocks, data));
}

Result Device::version_major(std::uint32_t &v)
{
	return to_result(cv_get_version_major(&dev_, &v));
}

Result Device::version_minor(std::uint32_t &v)
{
	return to_result(cv_get_version_minor(&dev_, &v));
}

Result Device::sync() { return to_result(cv_sync(&dev_)); }
Result Device::unload() { return to_result(cv_unload(&dev_)); }
Result Device::command_16() { return to_result(cv_command_16(&dev_)); }

Result Device::ioctl(std::uint32_t code, cv_uaddr arg)
{
	return to_result(cv_ioctl(&dev_, code, arg));
}

Result Device::map(std::uint32_t len, Mapping &out, int prot, int flags,
		   std::uint32_t pgoff)
{
	cv_uaddr addr = 0;
	const int r = cv_mmap(&dev_, len, prot, flags, pgoff, &addr);
	if (r != 0)
		return to_result(r);
	(void)out.unmap();
	out.r_ = detail::Region(dev_.tp, addr, len);
	return Result::Ok;
}

Result Device::allocate(std::uint32_t len, UserMemory &out)
{
	if (dev_.tp == nullptr)
		return Result::Closed;
	return UserMemory::allocate(dev_.tp, len, out);
}

}  // namespace corvalin
