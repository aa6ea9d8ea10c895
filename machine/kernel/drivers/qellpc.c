/*
 * The board driver of the simulated cabinet. Its front side is what the loader sees: "qellpc", ten
 * minors, each carrying records of at most 64 bytes both ways. Its back side is what the simulated board
 * sees: "qelboard", one node, on which every record of every minor is a frame
 *
 *	offset 0  minor, 0 to 9
 *	offset 1  length of the record, 1 to 64
 *	offset 2  the record
 *
 * One read of the back side gives one frame, one write takes one frame. Nodes are made by nobody but the
 * loader (front) and the cabinet's first program (back): there is no device class on purpose, because a
 * node that is already there stops the loader.
 *
 * Boot-line settings: qellpc.absent=1 leaves the driver out; qellpc.decoy=N registers a second name that
 * contains "qellpc" under the major number N, which answers nothing.
 */
#include <linux/fs.h>
#include <linux/init.h>
#include <linux/list.h>
#include <linux/moduleparam.h>
#include <linux/mutex.h>
#include <linux/poll.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include <linux/wait.h>

enum {
	minors = 10,
	record_bytes_max = 64,
	frame_head_bytes = 2,
	queued_records_max = 1024,
};

struct record {
	struct list_head link;
	u8 minor;
	u8 length;
	u8 taken; /* bytes of it that an earlier, smaller read has taken */
	u8 bytes[record_bytes_max];
};

struct queue {
	struct list_head records;
	unsigned int count;
	wait_queue_head_t changed;
};

static struct queue to_board;
static struct queue to_loader[minors];
static DEFINE_MUTEX(lock);

static bool absent;
module_param(absent, bool, 0444);
static int decoy;
module_param(decoy, int, 0444);

static void queue_init(struct queue *queue)
{
	INIT_LIST_HEAD(&queue->records);
	init_waitqueue_head(&queue->changed);
}

static bool queue_has_room(struct queue *queue)
{
	return READ_ONCE(queue->count) < queued_records_max;
}

static struct record *record_from_user(int minor, const char __user *bytes, size_t length)
{
	struct record *record = kzalloc(sizeof(*record), GFP_KERNEL);

	if (!record)
		return ERR_PTR(-ENOMEM);
	if (copy_from_user(record->bytes, bytes, length)) {
		kfree(record);
		return ERR_PTR(-EFAULT);
	}
	record->minor = minor;
	record->length = length;
	return record;
}

static void queue_put(struct queue *queue, struct record *record)
{
	mutex_lock(&lock);
	list_add_tail(&record->link, &queue->records);
	WRITE_ONCE(queue->count, queue->count + 1);
	mutex_unlock(&lock);
	wake_up_interruptible(&queue->changed);
}

/* Waits until the queue holds a record; 0, or the error that the read gives instead. */
static int wait_for_record(struct queue *queue, struct file *file)
{
	if (READ_ONCE(queue->count))
		return 0;
	if (file->f_flags & O_NONBLOCK)
		return -EAGAIN;
	return wait_event_interruptible(queue->changed, READ_ONCE(queue->count));
}

static struct record *queue_first(struct queue *queue)
{
	return list_first_entry_or_null(&queue->records, struct record, link);
}

static void queue_drop_first(struct queue *queue)
{
	struct record *record = queue_first(queue);

	list_del(&record->link);
	WRITE_ONCE(queue->count, queue->count - 1);
	kfree(record);
	wake_up_interruptible(&queue->changed);
}

static __poll_t queue_poll(struct queue *in, struct queue *out, struct file *file, poll_table *table)
{
	__poll_t events = 0;

	poll_wait(file, &in->changed, table);
	if (READ_ONCE(in->count))
		events |= EPOLLIN | EPOLLRDNORM;
	if (out)
		poll_wait(file, &out->changed, table);
	if (!out || queue_has_room(out))
		events |= EPOLLOUT | EPOLLWRNORM;
	return events;
}

/* ---- Front side: the loader's ten nodes ---- */

static ssize_t front_read(struct file *file, char __user *bytes, size_t size, loff_t *position)
{
	struct queue *queue = &to_loader[iminor(file_inode(file))];
	struct record *record;
	ssize_t result = wait_for_record(queue, file);

	if (result)
		return result;
	mutex_lock(&lock);
	record = queue_first(queue);
	if (record) {
		result = min_t(size_t, size, record->length - record->taken);
		if (copy_to_user(bytes, record->bytes + record->taken, result))
			result = -EFAULT;
		else
			record->taken += result;
		if (record->taken == record->length)
			queue_drop_first(queue);
	}
	mutex_unlock(&lock);
	return result;
}

static ssize_t front_write(struct file *file, const char __user *bytes, size_t size, loff_t *position)
{
	struct record *record;
	int interrupted;

	if (size == 0 || size > record_bytes_max)
		return -EINVAL;
	if (!queue_has_room(&to_board) && (file->f_flags & O_NONBLOCK))
		return -EAGAIN;
	interrupted = wait_event_interruptible(to_board.changed, queue_has_room(&to_board));
	if (interrupted)
		return interrupted;
	record = record_from_user(iminor(file_inode(file)), bytes, size);
	if (IS_ERR(record))
		return PTR_ERR(record);
	queue_put(&to_board, record);
	return size;
}

static __poll_t front_poll(struct file *file, poll_table *table)
{
	return queue_poll(&to_loader[iminor(file_inode(file))], &to_board, file, table);
}

static const struct file_operations front_operations = {
	.read = front_read,
	.write = front_write,
	.poll = front_poll,
};

/* ---- Back side: the simulated board's one node ---- */

static ssize_t back_read(struct file *file, char __user *frame, size_t size, loff_t *position)
{
	struct record *record;
	ssize_t result = wait_for_record(&to_board, file);

	if (result)
		return result;
	if (size < frame_head_bytes + record_bytes_max)
		return -EINVAL;
	mutex_lock(&lock);
	record = queue_first(&to_board);
	if (record) {
		result = frame_head_bytes + record->length;
		if (put_user(record->minor, frame) || put_user(record->length, frame + 1) ||
		    copy_to_user(frame + frame_head_bytes, record->bytes, record->length))
			result = -EFAULT;
		queue_drop_first(&to_board);
	}
	mutex_unlock(&lock);
	return result;
}

/*
 * A reader that is busy holds the board up for as long as a second; with no reader at all the record is
 * lost after that, as it would be on the wire, so that an unread minor cannot block the other nine.
 */
static ssize_t back_write(struct file *file, const char __user *frame, size_t size, loff_t *position)
{
	u8 head[frame_head_bytes];
	struct record *record;
	struct queue *queue;

	if (size < frame_head_bytes || copy_from_user(head, frame, frame_head_bytes))
		return -EINVAL;
	if (head[0] >= minors || head[1] == 0 || head[1] > record_bytes_max ||
	    size != frame_head_bytes + head[1])
		return -EINVAL;
	queue = &to_loader[head[0]];
	wait_event_interruptible_timeout(queue->changed, queue_has_room(queue), HZ);
	if (!queue_has_room(queue))
		return size;
	record = record_from_user(head[0], frame + frame_head_bytes, head[1]);
	if (IS_ERR(record))
		return PTR_ERR(record);
	queue_put(queue, record);
	return size;
}

static __poll_t back_poll(struct file *file, poll_table *table)
{
	return queue_poll(&to_board, NULL, file, table);
}

static const struct file_operations back_operations = {
	.read = back_read,
	.write = back_write,
	.poll = back_poll,
};

static const struct file_operations decoy_operations = {};

static int __init qellpc_init(void)
{
	int i, major;

	queue_init(&to_board);
	for (i = 0; i < minors; ++i)
		queue_init(&to_loader[i]);
	major = __register_chrdev(0, 0, 1, "qelboard", &back_operations);
	if (major < 0)
		return major;
	if (decoy)
		__register_chrdev(decoy, 0, minors, "qellpc_decoy", &decoy_operations);
	if (absent)
		return 0;
	major = __register_chrdev(0, 0, minors, "qellpc", &front_operations);
	return major < 0 ? major : 0;
}
device_initcall(qellpc_init);
