// Reading and tearing down the driver's queue registry (queueListHead) from
// the queue suites.  Removal belongs to change tracking, which these suites
// do not exercise: they restore each queue's real function and free the
// nodes themselves, so that every test ends with nothing allocated.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "emu/block.hpp"
#include "emu/emu.hpp"
#include "test_driver_util.hpp"

#include <linux/list.h>
#include <linux/slab.h>
#include <linux/blkdev.h>

namespace test {

inline QueueList *queue_node(struct list_head *p)
{
	return reinterpret_cast<QueueList *>(reinterpret_cast<char *>(p) -
					     offsetof(QueueList, list));
}

inline DevList *dev_node(struct list_head *p)
{
	return reinterpret_cast<DevList *>(reinterpret_cast<char *>(p) -
					   offsetof(DevList, list));
}

// The registry's queue nodes, head to tail.
inline std::vector<QueueList *> registry()
{
	std::vector<QueueList *> v;
	for (struct list_head *p = queueListHead.next; p != &queueListHead;
	     p = p->next)
		v.push_back(queue_node(p));
	return v;
}

// The device numbers on a queue node's list, in order.
inline std::vector<dev_t> devices(QueueList *ql)
{
	std::vector<dev_t> v;
	for (struct list_head *p = ql->devList.next; p != &ql->devList;
	     p = p->next)
		v.push_back(dev_node(p)->kdev);
	return v;
}

// Gives every registered queue its real function back and frees all nodes.
inline void clear_registry()
{
	for (QueueList *ql : registry()) {
		ql->rQueue->make_request_fn = ql->realMRF;
		while (!list_empty(&ql->devList)) {
			DevList *d = dev_node(ql->devList.next);
			list_del(&d->list);
			kfree(d);
		}
		list_del(&ql->list);
		kfree(ql);
	}
}

// Disk sda (8:0) with partition 1 at sector 63 (1,000,000 sectors, a file
// system of 4096-byte blocks) and partition 2 behind it (1,000,000 sectors,
// 1024-byte blocks), both mounted, which opens them and the whole disk; a
// Backup record per partition with its geometry.  The log is cleared and
// the memory in use recorded after the set-up; the tear-down checks that
// the queue has its own function again and that nothing is left over.
class TwoPartitions : public ::testing::Test {
protected:
	void SetUp() override
	{
		emu::log_clear();
		disk_ = std::make_unique<emu::Disk>(
			disk_config(8, 0, 16, 3000000, "sda"));
		ASSERT_EQ(disk_->add_partition(1, 63, 1000000), 0);
		ASSERT_EQ(disk_->add_partition(2, 1000063, 1000000), 0);
		fs1_ = std::make_unique<emu::FileSystem>(*disk_, 1, 4096);
		fs2_ = std::make_unique<emu::FileSystem>(*disk_, 2, 1024);
		ASSERT_EQ(getDiskInfo(&b1_.diskInfo, disk_->dev(1)), 0);
		ASSERT_EQ(getDiskInfo(&b2_.diskInfo, disk_->dev(2)), 0);
		q_ = disk_->queue();
		real_ = q_->make_request_fn;
		ASSERT_EQ(real_, emu::Disk::request_fn());
		emu::log_clear();
		base_ = emu::usage();
	}
	void TearDown() override
	{
		EXPECT_EQ(q_->make_request_fn, real_);
		EXPECT_EQ(emu::usage(), base_);
		fs2_.reset();
		fs1_.reset();
		disk_.reset();
	}
	std::unique_ptr<emu::Disk> disk_;
	std::unique_ptr<emu::FileSystem> fs1_, fs2_;
	Backup b1_{}, b2_{};
	struct request_queue *q_ = nullptr;
	make_request_fn *real_ = nullptr;
	emu::Usage base_;
};

}  // namespace test
