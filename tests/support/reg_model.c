#include "reg_model.h"

#include <stdlib.h>

#include "cmocka_all.h"
#include "lh_regs.h"

#define MAX_MODELS 8

static struct reg_model *models[MAX_MODELS];

void *reg_model_attach(struct reg_model *model, size_t size)
{
    model->words = calloc(size / 4, sizeof(uint32_t));
    model->size = size;
    model->reads = 0;
    model->writes = 0;
    assert_non_null(model->words);
    for (size_t i = 0; i < MAX_MODELS; i++) {
        if (models[i] == NULL) {
            models[i] = model;
            return model->words;
        }
    }
    fail_msg("too many register models");
    return NULL;
}

void reg_model_detach(struct reg_model *model)
{
    for (size_t i = 0; i < MAX_MODELS; i++)
        if (models[i] == model)
            models[i] = NULL;
    free(model->words);
    model->words = NULL;
}

uint32_t reg_model_peek(const struct reg_model *model, uint32_t offset)
{
    assert_true(offset % 4 == 0 && offset < model->size);
    return model->words[offset / 4];
}

void reg_model_store(struct reg_model *model, uint32_t offset, uint32_t value)
{
    assert_true(offset % 4 == 0 && offset < model->size);
    model->words[offset / 4] = value;
}

void reg_model_fill(struct reg_model *model, uint32_t value)
{
    for (size_t i = 0; i < model->size / 4; i++)
        model->words[i] = value;
}

/* The model holding `address`, and the offset of it in that model. */
static struct reg_model *find_model(volatile void *address, uint32_t *offset)
{
    uintptr_t at = (uintptr_t)address;

    for (size_t i = 0; i < MAX_MODELS; i++) {
        struct reg_model *model = models[i];
        uintptr_t start;

        if (model == NULL)
            continue;
        start = (uintptr_t)model->words;
        if (at >= start && at < start + model->size) {
            *offset = (uint32_t)(at - start);
            return model;
        }
    }
    return NULL;
}

uint32_t lh_reg_model_read(volatile void *base, uint32_t offset)
{
    volatile uint8_t *address = (volatile uint8_t *)base + offset;
    uint32_t model_offset;
    struct reg_model *model = find_model(address, &model_offset);
    uint32_t stored;

    if (model == NULL)
        fail_msg("register read outside every model at %p", (void *)address);
    model->reads++;
    stored = model->words[model_offset / 4];
    if (model->on_read != NULL)
        return model->on_read(model, model_offset, stored);
    return stored;
}

void lh_reg_model_write(volatile void *base, uint32_t offset, uint32_t value)
{
    volatile uint8_t *address = (volatile uint8_t *)base + offset;
    uint32_t model_offset;
    struct reg_model *model = find_model(address, &model_offset);

    if (model == NULL)
        fail_msg("register write outside every model at %p", (void *)address);
    model->writes++;
    if (model->on_write != NULL)
        model->on_write(model, model_offset, value);
    else
        model->words[model_offset / 4] = value;
}
